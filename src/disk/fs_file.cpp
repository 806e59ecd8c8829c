#include "disk/fs_file.h"

#include <cstdio>

#include "disk/status_log.h"
#include "platform/clock.h"

namespace molra {
namespace detail {

namespace platform = molra::platform;

namespace {

constexpr int kMaxRetries = 5;
constexpr DWORD kRetryWaitMs = 5;

std::unique_ptr<platform::File> OpenShared(char const* path, platform::Access access) {
  return platform::CurrentEnv()->OpenFile(path, access, platform::kShareReadWrite,
                                          platform::Disposition::kOpenAlways);
}

}  // namespace

CFsFile::~CFsFile() {
  if (IsOpen()) Close();
}

int CFsFile::Open(char const* path, int mode) {
  const platform::Access access = mode == kModeReadWrite ? platform::Access::kReadWrite
                                  : mode == kModeWrite   ? platform::Access::kWrite
                                                         : platform::Access::kRead;
  m_path = path;
  m_advice = -1;
  char line[400];
  for (int retries = 0;;) {
    // A handle the object still held is released here rather than leaked.
    m_hFile = OpenShared(path, access);
    if (m_hFile) return 1;
    const DWORD error = platform::GetLastError();
    if (error != platform::kErrorSharingViolation) {
      std::snprintf(line, sizeof line, "fail to Open File System %d : %s",
                    static_cast<int>(error), path);
      FsStatusLog(line);
      return 0;
    }
    if (++retries > kMaxRetries) {
      std::snprintf(line, sizeof line, "fail to Open File System - Sharing Violation : %s",
                    path);
      FsStatusLog(line);
      return 0;
    }
    std::snprintf(line, sizeof line, "retry %d : %s", retries, path);
    FsStatusLog(line);
    platform::Sleep(kRetryWaitMs);
  }
}

int CFsFile::Close() {
  if (!IsOpen()) return 0;
  char line[128];
  for (int retries = 0;;) {
    if (m_hFile->Close()) {
      m_hFile.reset();
      return 1;
    }
    const DWORD error = platform::GetLastError();
    if (error == platform::kErrorSharingViolation) {
      if (++retries > kMaxRetries) {
        std::snprintf(line, sizeof line,
                      "fail to Open File System - Sharing Violation - close : %u \n",
                      static_cast<unsigned>(error));
        FsStatusLog(line);
        return 0;
      }
      FsStatusLog("retry  - close");
      platform::Sleep(kRetryWaitMs);
      continue;
    }
    if (error == platform::kErrorInvalidHandle) {
      std::snprintf(line, sizeof line, "ERROR_INVALID_HANDLE - close : %u \n",
                    static_cast<unsigned>(error));
    } else {
      std::snprintf(line, sizeof line, "fail to Open File System - close : %u \n",
                    static_cast<unsigned>(error));
    }
    FsStatusLog(line);
    return 0;
  }
}

int CFsFile::Read(void* buffer, DWORD count) {
  if (!IsOpen()) return 0;
  DWORD done = 0;
  return m_hFile->Read(buffer, count, &done) && done == count ? 1 : 0;
}

int CFsFile::Write(const void* buffer, DWORD count) {
  if (!IsOpen()) return 0;
  DWORD done = 0;
  const bool ok = m_hFile->Write(buffer, count, &done);
  if (ok && done == count) return 1;
  // A write that stops short without an error has run out of room.
  if (ok) platform::SetLastError(platform::kErrorDiskFull);
  const DWORD error = platform::GetLastError();
  const DWORD here = m_hFile->Seek(0, platform::kFileCurrent);
  platform::SetLastError(error);
  LogFailure("write", here == platform::kInvalidSetFilePointer ? here : here - done);
  return 0;
}

int CFsFile::ReadAt(DWORD offset, void* buffer, DWORD count) {
  if (!IsOpen()) return 0;
  DWORD done = 0;
  return m_hFile->ReadAt(offset, buffer, count, &done) && done == count ? 1 : 0;
}

int CFsFile::WriteAt(DWORD offset, const void* buffer, DWORD count) {
  if (!IsOpen()) return 0;
  DWORD done = 0;
  const bool ok = m_hFile->WriteAt(offset, buffer, count, &done);
  if (ok && done == count) return 1;
  if (ok) platform::SetLastError(platform::kErrorDiskFull);
  LogFailure("write", offset);
  return 0;
}

int CFsFile::Seek(DWORD offset, int origin) {
  if (!IsOpen()) return 0;
  // The wrapper counts origins differently from the platform.
  DWORD method = static_cast<DWORD>(origin);
  if (origin == 0) {
    method = platform::kFileBegin;
  } else if (origin == 1) {
    method = platform::kFileEnd;
  } else if (origin == 2) {
    method = platform::kFileCurrent;
  }
  const DWORD position = m_hFile->Seek(static_cast<LONG>(offset), method);
  if (position == platform::kInvalidSetFilePointer) {
    LogFailure("seek", offset);
    return 0;
  }
  return position == offset ? 1 : 0;
}

DWORD CFsFile::GetSize() {
  if (!IsOpen()) return 0;
  const DWORD size = m_hFile->Size();
  return size == platform::kInvalidFileSize ? 0 : size;
}

int CFsFile::Reserve(DWORD size) {
  if (!IsOpen()) return 0;
  if (m_hFile->Reserve(size)) return 1;
  LogFailure("reserve", size);
  return 0;
}

int CFsFile::CreateSized(char const* path, DWORD size) {
  if (IsOpen()) Close();
  m_path = path;
  m_advice = -1;
  m_hFile = OpenShared(path, platform::Access::kReadWrite);
  if (!m_hFile) return 0;
  // A size the 32-bit seek cannot reach must not cut the file to nothing.
  // Blocks come before length: a file system that can only write zeros
  // then fills the whole file, not just what lies past an old end.
  if (!Seek(size, 0) || !Reserve(size) || !Seek(size, 0)) return 0;
  if (m_hFile->SetEnd()) return 1;
  LogFailure("set end", size);
  return 0;
}

int CFsFile::Flush() {
  if (!IsOpen()) return 0;
  if (m_hFile->Flush()) return 1;
  LogFailure("flush", 0);
  return 0;
}

int CFsFile::Advise(platform::Advice advice, DWORD offset, DWORD count) {
  if (!IsOpen()) return 0;
  // A whole-file hint holds for the handle: given once, not at every read.
  const int whole = count == 0 && offset == 0 ? static_cast<int>(advice) : -1;
  if (whole >= 0 && whole == m_advice) return 1;
  if (!m_hFile->Advise(advice, offset, count)) return 0;
  if (whole >= 0) m_advice = whole;
  return 1;
}

int CFsFile::Holds(char const* path) {
  return IsOpen() && path != nullptr && m_path == path && m_hFile->IsFileAt(path) ? 1 : 0;
}

void CFsFile::LogFailure(const char* operation, DWORD offset) const {
  molra::LogIoFailure(operation, m_path.c_str(), offset, platform::GetLastError());
}

}  // namespace detail
}  // namespace molra
