#include "support/temp_drives.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "molra/platform.h"
#include "platform/clock.h"

namespace molra_test {
namespace {

#ifdef _WIN32
// A fresh directory below the user's temporary directory, as UTF-8.
std::string MakeTempDir() {
  wchar_t temp[MAX_PATH + 1];
  const DWORD length = ::GetTempPathW(MAX_PATH + 1, temp);
  if (length == 0 || length > MAX_PATH) return std::string();
  static unsigned counter = 0;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::wstring dir = std::wstring(temp, length) + L"molra-test-" +
                             std::to_wstring(::GetCurrentProcessId()) + L"-" +
                             std::to_wstring(++counter);
    if (::CreateDirectoryW(dir.c_str(), nullptr)) {
      return std::filesystem::path(dir).generic_u8string();  // '/' as the tests join paths
    }
    if (::GetLastError() != ERROR_ALREADY_EXISTS) break;
  }
  return std::string();
}
#else
std::string MakeTempDir() {
  char pattern[] = "/tmp/molra-test-XXXXXX";
  return ::mkdtemp(pattern) ? pattern : std::string();
}
#endif

}  // namespace

void TempDrives::SetUp() {
  m_base = MakeTempDir();
  ASSERT_FALSE(m_base.empty());
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
  std::filesystem::remove_all(std::filesystem::u8path(m_base), ignored);
}

Bytes TempDrives::ReadAll(const std::string& realPath, size_t limit) {
  Bytes bytes(std::min(limit, static_cast<size_t>(std::max(FileSize(realPath), 0LL))), '\0');
  std::ifstream(std::filesystem::u8path(realPath), std::ios::binary)
      .read(bytes.data(), static_cast<long>(bytes.size()));
  return bytes;
}

long long TempDrives::FileSize(const std::string& realPath) {
  const std::filesystem::path path = std::filesystem::u8path(realPath);
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) return 0;
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  return error ? -1 : static_cast<long long>(size);
}

bool TempDrives::SetLastWrite(const std::string& realPath, const SYSTEMTIME& utc) {
  const std::int64_t millis = molra::platform::StampToUnixMillis(utc);
#ifdef _WIN32
  // File times count 100 ns steps from 1601.
  const std::uint64_t ticks = static_cast<std::uint64_t>(millis + 11644473600000LL) * 10000u;
  const FILETIME time{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
  const HANDLE file = ::CreateFileW(std::filesystem::u8path(realPath).c_str(),
                                    FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  const bool set = ::SetFileTime(file, nullptr, &time, &time) != 0;
  return ::CloseHandle(file) && set;
#else
  const timespec time{static_cast<time_t>(millis / 1000),
                      static_cast<long>(millis % 1000) * 1000000};
  const timespec times[2] = {time, time};
  return ::utimensat(AT_FDCWD, realPath.c_str(), times, 0) == 0;
#endif
}

}  // namespace molra_test
