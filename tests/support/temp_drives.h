// A test's own machine: every drive letter maps to a fresh temporary
// directory, the clock stands at a fixed UTC time and the zone is UTC.
// Everything is undone when the fixture ends.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "molra/molra.h"

namespace molra_test {

class TempDrives : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The real directory of drive `letter`, and of a path on it.
  std::string Root(char letter) const;
  std::string Real(char letter, const std::string& relative) const;

  // Whole contents of a real file (empty when absent).
  static std::vector<unsigned char> ReadAll(const std::string& realPath);
  static bool FileExists(const std::string& realPath);
  static long long FileSize(const std::string& realPath);

  // The fixed clock: 2010-11-18 09:30:15.250 UTC unless a test moves it.
  SYSTEMTIME m_clock{};

 private:
  std::string m_base;
};

}  // namespace molra_test
