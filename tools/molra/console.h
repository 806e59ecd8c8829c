// The few calls of the command that each system names its own way: is
// standard error a terminal (for progress lines), and UTC calendar fields.
#pragma once

#include <cstdio>
#include <ctime>

#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

namespace molra_tools {

inline bool StderrIsTerminal() {
#ifdef _WIN32
  return _isatty(_fileno(stderr)) != 0;
#else
  return isatty(STDERR_FILENO) != 0;
#endif
}

// False where the system cannot name the time.
inline bool UtcFields(std::time_t when, std::tm* out) {
#ifdef _WIN32
  return gmtime_s(out, &when) == 0;
#else
  return gmtime_r(&when, out) != nullptr;
#endif
}

}  // namespace molra_tools
