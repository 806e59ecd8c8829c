#include "disk/fs_file.h"

#include <cstdio>

#include "disk/status_log.h"
#include "platform/clock.h"

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
  return m_hFile->Write(buffer, count, &done) && done == count ? 1 : 0;
}

int CFsFile::ReadAt(DWORD offset, void* buffer, DWORD count) {
  if (!IsOpen()) return 0;
  DWORD done = 0;
  return m_hFile->ReadAt(offset, buffer, count, &done) && done == count ? 1 : 0;
}

int CFsFile::WriteAt(DWORD offset, const void* buffer, DWORD count) {
  if (!IsOpen()) return 0;
  DWORD done = 0;
  return m_hFile->WriteAt(offset, buffer, count, &done) && done == count ? 1 : 0;
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
  return position != platform::kInvalidSetFilePointer && position == offset ? 1 : 0;
}

DWORD CFsFile::GetSize() {
  if (!IsOpen()) return 0;
  const DWORD size = m_hFile->Size();
  return size == platform::kInvalidFileSize ? 0 : size;
}

int CFsFile::CreateSized(char const* path, DWORD size) {
  if (IsOpen()) Close();
  m_hFile = OpenShared(path, platform::Access::kReadWrite);
  if (!m_hFile) return 0;
  // A size the 32-bit seek cannot reach must not cut the file to nothing.
  if (m_hFile->Seek(static_cast<LONG>(size), platform::kFileBegin) != size) return 0;
  return m_hFile->SetEnd() ? 1 : 0;
}
