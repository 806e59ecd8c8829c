// The Win32 backend of the platform layer. The system's error numbers are
// already the store's, so a failed call passes its last error on as it is.
#include <windows.h>

#include <cstring>
#include <cwchar>
#include <string>
#include <utility>
#include <vector>

#include "platform/env.h"
#include "platform/win32_machine_zone.h"
#include "platform/win32_paths.h"

namespace molra {
namespace platform {
namespace {

// Hands the system's last error on as the store's, and fails.
bool Fail() {
  SetLastError(::GetLastError());
  return false;
}

bool Fail(DWORD error) {
  SetLastError(error);
  return false;
}

DWORD DesiredAccess(Access access) {
  switch (access) {
    case Access::kRead:
      return GENERIC_READ;
    case Access::kWrite:
      return GENERIC_WRITE;
    case Access::kReadWrite:
      break;
  }
  return GENERIC_READ | GENERIC_WRITE;
}

// No FILE_SHARE_DELETE: a file stays put while any handle has it open.
DWORD ShareMode(unsigned share) {
  return ((share & kShareRead) ? FILE_SHARE_READ : 0) |
         ((share & kShareWrite) ? FILE_SHARE_WRITE : 0);
}

OVERLAPPED At(std::uint64_t position) {
  OVERLAPPED at{};
  at.Offset = static_cast<DWORD>(position);
  at.OffsetHigh = static_cast<DWORD>(position >> 32);
  return at;
}

class Win32File final : public File {
 public:
  explicit Win32File(HANDLE handle) : m_handle(handle) {}
  ~Win32File() override {
    if (m_handle != INVALID_HANDLE_VALUE) ::CloseHandle(m_handle);
  }

  bool Read(void* buffer, DWORD count, DWORD* done) override {
    *done = 0;
    if (!Usable()) return false;
    char* out = static_cast<char*>(buffer);
    while (*done < count) {
      DWORD n = 0;
      if (!::ReadFile(m_handle, out + *done, count - *done, &n, nullptr)) return Fail();
      if (n == 0) break;  // end of file: a short read, not an error
      *done += n;
    }
    return true;
  }

  bool Write(const void* buffer, DWORD count, DWORD* done) override {
    *done = 0;
    if (!Usable()) return false;
    const char* in = static_cast<const char*>(buffer);
    while (*done < count) {
      DWORD n = 0;
      if (!::WriteFile(m_handle, in + *done, count - *done, &n, nullptr)) return Fail();
      if (n == 0) return Fail(kErrorDiskFull);
      *done += n;
    }
    return true;
  }

  // A synchronous handle with an OVERLAPPED offset: one request at that
  // position, which also moves the file pointer behind it.
  bool ReadAt(DWORD position, void* buffer, DWORD count, DWORD* done) override {
    *done = 0;
    if (!Usable() || !Reachable(position)) return false;
    char* out = static_cast<char*>(buffer);
    while (*done < count) {
      OVERLAPPED at = At(std::uint64_t{position} + *done);
      DWORD n = 0;
      if (!::ReadFile(m_handle, out + *done, count - *done, &n, &at)) {
        if (::GetLastError() == ERROR_HANDLE_EOF) break;  // a short read, not an error
        return Fail();
      }
      if (n == 0) break;
      *done += n;
    }
    return true;
  }

  bool WriteAt(DWORD position, const void* buffer, DWORD count, DWORD* done) override {
    *done = 0;
    if (!Usable() || !Reachable(position)) return false;
    const char* in = static_cast<const char*>(buffer);
    while (*done < count) {
      OVERLAPPED at = At(std::uint64_t{position} + *done);
      DWORD n = 0;
      if (!::WriteFile(m_handle, in + *done, count - *done, &n, &at)) return Fail();
      if (n == 0) return Fail(kErrorDiskFull);
      *done += n;
    }
    return true;
  }

  // The checks of a 32-bit SetFilePointer, made on 64-bit positions so
  // that a file beyond 4 GiB cannot wrap a position into range.
  DWORD Seek(LONG distance, DWORD origin) override {
    if (!Usable()) return kInvalidSetFilePointer;
    LARGE_INTEGER base{};
    if (origin == kFileCurrent) {
      const LARGE_INTEGER zero{};
      if (!::SetFilePointerEx(m_handle, zero, &base, FILE_CURRENT)) {
        Fail();
        return kInvalidSetFilePointer;
      }
    } else if (origin == kFileEnd) {
      if (!::GetFileSizeEx(m_handle, &base)) {
        Fail();
        return kInvalidSetFilePointer;
      }
    } else if (origin != kFileBegin) {
      Fail(kErrorInvalidParameter);
      return kInvalidSetFilePointer;
    }
    LARGE_INTEGER target;
    target.QuadPart = base.QuadPart + distance;
    if (target.QuadPart < 0) {
      Fail(kErrorNegativeSeek);
      return kInvalidSetFilePointer;
    }
    // A 32-bit seek cannot name a position beyond 4 GiB - 2.
    if (target.QuadPart >= static_cast<LONGLONG>(kInvalidSetFilePointer)) {
      Fail(kErrorInvalidParameter);
      return kInvalidSetFilePointer;
    }
    if (!::SetFilePointerEx(m_handle, target, nullptr, FILE_BEGIN)) {
      Fail();
      return kInvalidSetFilePointer;
    }
    return static_cast<DWORD>(target.QuadPart);
  }

  bool SetEnd() override {
    if (!Usable()) return false;
    return ::SetEndOfFile(m_handle) ? true : Fail();
  }

  // Allocation first, then the end: the clusters are the file's before
  // the end moves over them, and a sparse file has its holes filled, so
  // that no write below `size` can meet a full disk. A file system that
  // keeps no allocation apart from the end (Wine's among them) may leave
  // a hole behind a moved end, so it gets its zeros written instead.
  bool Reserve(DWORD size) override {
    if (!Usable()) return false;
    FILE_STANDARD_INFO standard{};
    if (!::GetFileInformationByHandleEx(m_handle, FileStandardInfo, &standard,
                                        sizeof standard)) {
      return Fail();
    }
    if (!FillSparseRanges()) return false;
    if (standard.EndOfFile.QuadPart >= LONGLONG{size}) return true;  // never cuts
    if (standard.AllocationSize.QuadPart < LONGLONG{size}) {
      FILE_ALLOCATION_INFO allocation{};
      allocation.AllocationSize.QuadPart = size;
      if (!::SetFileInformationByHandle(m_handle, FileAllocationInfo, &allocation,
                                        sizeof allocation)) {
        const DWORD error = ::GetLastError();
        return CannotAllocate(error) ? File::Reserve(size) : Fail(error);
      }
    }
    FILE_END_OF_FILE_INFO end{};
    end.EndOfFile.QuadPart = size;
    if (!::SetFileInformationByHandle(m_handle, FileEndOfFileInfo, &end, sizeof end)) {
      return Fail();
    }
    return true;
  }

  DWORD Size() override {
    if (!Usable()) return kInvalidFileSize;
    LARGE_INTEGER size;
    if (!::GetFileSizeEx(m_handle, &size)) {
      Fail();
      return kInvalidFileSize;
    }
    return static_cast<DWORD>(size.QuadPart);
  }

  bool Flush() override {
    if (!Usable()) return false;
    return ::FlushFileBuffers(m_handle) ? true : Fail();
  }

  // A handle whose close fails is gone all the same: the next Close
  // answers success.
  bool Close() override {
    if (m_handle == INVALID_HANDLE_VALUE) return true;
    const HANDLE handle = std::exchange(m_handle, INVALID_HANDLE_VALUE);
    return ::CloseHandle(handle) ? true : Fail();
  }

 private:
  // A position that a seek from the start (a signed 32-bit distance) names.
  static bool Reachable(DWORD position) {
    return position <= 0x7FFFFFFFu ? true : Fail(kErrorNegativeSeek);
  }

  static bool CannotAllocate(DWORD error) {
    return error == ERROR_CALL_NOT_IMPLEMENTED || error == ERROR_NOT_SUPPORTED ||
           error == ERROR_INVALID_FUNCTION || error == ERROR_INVALID_PARAMETER;
  }

  // A sparse file stops being sparse, which gives its holes clusters.
  bool FillSparseRanges() {
    BY_HANDLE_FILE_INFORMATION info{};
    if (!::GetFileInformationByHandle(m_handle, &info)) return Fail();
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_SPARSE_FILE) == 0) return true;
    FILE_SET_SPARSE_BUFFER notSparse{};
    notSparse.SetSparse = FALSE;
    DWORD returned = 0;
    if (!::DeviceIoControl(m_handle, FSCTL_SET_SPARSE, &notSparse, sizeof notSparse, nullptr, 0,
                           &returned, nullptr)) {
      return Fail();
    }
    return true;
  }

  bool Usable() const {
    return m_handle != INVALID_HANDLE_VALUE ? true : Fail(kErrorInvalidHandle);
  }

  HANDLE m_handle;
};

class Win32Env final : public Env {
 public:
  std::unique_ptr<File> OpenFile(const char* path, Access access, unsigned share,
                                 Disposition disposition) override {
    std::wstring real;
    if (!ResolvePath(path, &real)) return nullptr;
    // Made or opened, then cut, rather than CREATE_ALWAYS, which refuses
    // a hidden file and drops its attributes.
    const DWORD create = disposition == Disposition::kOpenExisting ? OPEN_EXISTING : OPEN_ALWAYS;
    const HANDLE handle = ::CreateFileW(real.c_str(), DesiredAccess(access), ShareMode(share),
                                        nullptr, create, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
      Fail();
      return nullptr;
    }
    std::unique_ptr<File> file(new Win32File(handle));
    if (disposition == Disposition::kCreateAlways && !file->SetEnd()) return nullptr;
    SetLastError(kErrorSuccess);
    return file;
  }

  bool RemoveFile(const char* path) override {
    std::wstring real;
    if (!ResolvePath(path, &real)) return false;
    return ::DeleteFileW(real.c_str()) ? true : Fail();
  }

  bool MakeDirectory(const char* path) override {
    std::wstring real;
    if (!ResolvePath(path, &real)) return false;
    return ::CreateDirectoryW(real.c_str(), nullptr) ? true : Fail();
  }

  bool Exists(const char* path) override {
    std::wstring real;
    return ResolvePath(path, &real) &&
           ::GetFileAttributesW(real.c_str()) != INVALID_FILE_ATTRIBUTES;
  }

  bool FileSize(const char* path, std::uint64_t* size) override {
    std::wstring real;
    if (!ResolvePath(path, &real)) return false;
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!::GetFileAttributesExW(real.c_str(), GetFileExInfoStandard, &data)) return Fail();
    *size = std::uint64_t{data.nFileSizeHigh} << 32 | data.nFileSizeLow;
    return true;
  }

  DWORD GetAttributes(const char* path) override {
    std::wstring real;
    if (!ResolvePath(path, &real)) return kInvalidFileAttributes;
    const DWORD attributes = ::GetFileAttributesW(real.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) Fail();
    return attributes;
  }

  bool SetAttributes(const char* path, DWORD attributes) override {
    std::wstring real;
    if (!ResolvePath(path, &real)) return false;
    // The directory bit is a fact of the entry, never a setting.
    attributes &= ~DWORD{FILE_ATTRIBUTE_DIRECTORY};
    if (attributes == 0) attributes = FILE_ATTRIBUTE_NORMAL;
    return ::SetFileAttributesW(real.c_str(), attributes) ? true : Fail();
  }

  bool FindFiles(const char* pattern, std::vector<FoundFile>* found) override {
    found->clear();
    const char* namePattern = pattern;
    for (const char* p = pattern; *p; ++p) {
      if (*p == '\\' || *p == '/') namePattern = p + 1;
    }
    std::string dirPart = namePattern == pattern ? std::string(".")
                                                 : std::string(pattern, namePattern - pattern - 1);
    if (dirPart.size() == 2 && dirPart[1] == ':') dirPart += '\\';
    std::wstring dir;
    if (!ResolvePath(dirPart.c_str(), &dir)) return false;
    if (dir.back() != L'\\') dir += L'\\';
    // Every entry, matched here: the system's own matching also takes
    // short names and reads "*.*" as "*".
    WIN32_FIND_DATAW entry;
    const HANDLE search = ::FindFirstFileExW((dir + L"*").c_str(), FindExInfoBasic, &entry,
                                             FindExSearchNameMatch, nullptr, 0);
    if (search == INVALID_HANDLE_VALUE) return Fail();
    const std::wstring wanted = Widen(namePattern);
    do {
      if (std::wcscmp(entry.cFileName, L".") == 0 || std::wcscmp(entry.cFileName, L"..") == 0 ||
          !MatchesPattern(wanted.c_str(), entry.cFileName)) {
        continue;
      }
      FoundFile file;
      file.name = Narrow(entry.cFileName);
      if (!::FileTimeToSystemTime(&entry.ftLastWriteTime, &file.lastWrite)) continue;
      file.attributes = entry.dwFileAttributes;
      file.size = std::uint64_t{entry.nFileSizeHigh} << 32 | entry.nFileSizeLow;
      found->push_back(std::move(file));
    } while (::FindNextFileW(search, &entry));
    const DWORD stop = ::GetLastError();
    if (!::FindClose(search)) return Fail();
    if (stop != ERROR_NO_MORE_FILES) return Fail(stop);
    return found->empty() ? Fail(kErrorFileNotFound) : true;
  }

  bool AppendText(const char* path, const char* text) override {
    std::wstring real;
    if (!ResolvePath(path, &real)) return false;
    const HANDLE handle =
        ::CreateFileW(real.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                      OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return Fail();
    Win32File file(handle);
    DWORD done = 0;
    if (!file.Write(text, static_cast<DWORD>(std::strlen(text)), &done)) return false;
    return file.Close();
  }

  void NowUtc(SYSTEMTIME* now) override { ::GetSystemTime(now); }

  void MachineTimeZone(int year, TIME_ZONE_INFORMATION* zone, std::string* note) override {
    ReadMachineZone(year, zone, note);
  }

  void Sleep(DWORD milliseconds) override { ::Sleep(milliseconds); }
};

}  // namespace

Env* Env::Default() {
  static Env* env = new Win32Env;  // never destroyed: usable at exit
  return env;
}

}  // namespace platform
}  // namespace molra
