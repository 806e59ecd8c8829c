#include "support/temp_drives.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

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

std::string TempDrives::Root(char letter) const {
  return m_base + "/" + static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
}

std::string TempDrives::Real(char letter, const std::string& relative) const {
  return Root(letter) + "/" + relative;
}

std::vector<unsigned char> TempDrives::ReadAll(const std::string& realPath) {
  std::ifstream in(realPath, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in),
                                    std::istreambuf_iterator<char>());
}

bool TempDrives::FileExists(const std::string& realPath) {
  struct stat st;
  return ::stat(realPath.c_str(), &st) == 0;
}

long long TempDrives::FileSize(const std::string& realPath) {
  struct stat st;
  return ::stat(realPath.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

}  // namespace molra_test
