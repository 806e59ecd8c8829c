// A test's own machine: every drive letter maps to a fresh temporary
// directory, the clock stands at a fixed UTC time and the zone is UTC.
// Everything is undone when the fixture ends.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <string>

#include "molra/molra.h"

namespace molra_test {

using Bytes = std::string;  // file contents, byte for byte

class TempDrives : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The real directory of drive `letter`, and of a path on it.
  std::string Root(char letter) const {
    return m_base + "/" + static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  }
  std::string Real(char letter, const std::string& relative) const {
    return Root(letter) + "/" + relative;
  }

  // Contents of a real file up to `limit` bytes (empty when absent), and
  // its size (-1 when absent).
  static Bytes ReadAll(const std::string& realPath, size_t limit = SIZE_MAX);
  static long long FileSize(const std::string& realPath);
  static bool FileExists(const std::string& realPath) { return FileSize(realPath) >= 0; }
  // Sets the last write time of a real file, to the millisecond.
  static bool SetLastWrite(const std::string& realPath, const SYSTEMTIME& utc);

  // The fixed clock: 2010-11-18 09:30:15.250 UTC unless a test moves it.
  SYSTEMTIME m_clock{};

 private:
  std::string m_base;
};

}  // namespace molra_test
