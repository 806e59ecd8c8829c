#include "support/temp_drives.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "molra/platform.h"

namespace molra_test {

void TempDrives::SetUp() {
  char pattern[] = "/tmp/molra-test-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  m_base = pattern;
  for (char letter = 'a'; letter <= 'z'; ++letter) {
    molra::platform::SetDriveRoot(letter, Root(letter));
  }
  m_clock = SYSTEMTIME{2010, 11, 4, 18, 9, 30, 15, 250};
  molra::platform::SetClock(&m_clock);
  TIME_ZONE_INFORMATION utc{};
  molra::platform::SetTimeZone(&utc);
  molra::platform::SetMessageHook(nullptr);
  molra::platform::SetMessageBoxHook(nullptr);
}

void TempDrives::TearDown() {
  molra::platform::SetClock(nullptr);
  molra::platform::SetTimeZone(nullptr);
  std::error_code ignored;
  std::filesystem::remove_all(m_base, ignored);
}

Bytes TempDrives::ReadAll(const std::string& realPath, size_t limit) {
  Bytes bytes(std::min(limit, static_cast<size_t>(std::max(FileSize(realPath), 0LL))), '\0');
  std::ifstream(realPath, std::ios::binary).read(bytes.data(), static_cast<long>(bytes.size()));
  return bytes;
}

long long TempDrives::FileSize(const std::string& realPath) {
  struct stat st;
  return ::stat(realPath.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

}  // namespace molra_test
