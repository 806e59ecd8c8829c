#include "verify/verify_support.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/clock.h"

namespace molra {
namespace verify {

namespace {

// Repeats of one kind of fault in one file that are listed one by one.
constexpr DWORD kListedPerKind = 8;
// Opens that meet a sharing violation (an erase holds a file for a
// moment) are tried again, as the store's own opens are.
constexpr int kOpenAttempts = 6;
constexpr DWORD kOpenWaitMs = 5;

}  // namespace

#if defined(_WIN32)
std::string SayText(const char* format, ...) {
#else
std::string Say(const char* format, ...) {
#endif
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

std::string StampText(const SYSTEMTIME& t) {
  return Say("%04u-%02u-%02u %02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
             t.wSecond, t.wMilliseconds);
}

void Report::Add(const std::string& file, DWORD offset, std::string what, const char* kind) {
  if (kind != nullptr) {
    Cut& cut = m_kinds[{file, kind}];
    if (cut.seen++ == kListedPerKind) cut.firstOffset = offset;
    if (cut.seen > kListedPerKind) return;
  }
  m_findings.push_back(Finding{file, offset, std::move(what)});
}

std::vector<Finding> Report::Take() {
  for (const auto& [where, cut] : m_kinds) {
    if (cut.seen <= kListedPerKind) continue;
    m_findings.push_back(
        Finding{where.first, cut.firstOffset,
                Say("%u more from here on: %s", cut.seen - kListedPerKind, where.second.c_str())});
  }
  m_kinds.clear();
  return std::move(m_findings);
}

bool ReadOnlyFile::Open(const char* path) {
  platform::Env* env = platform::CurrentEnv();
  for (int attempt = 1;; ++attempt) {
    m_file = env->OpenFile(path, platform::Access::kRead, platform::kShareReadWrite,
                           platform::Disposition::kOpenExisting);
    if (m_file) return true;
    m_error = platform::GetLastError();
    if (m_error != platform::kErrorSharingViolation || attempt == kOpenAttempts) return false;
    platform::Sleep(kOpenWaitMs);
  }
}

DWORD ReadOnlyFile::Size() {
  const DWORD size = m_file ? m_file->Size() : platform::kInvalidFileSize;
  return size == platform::kInvalidFileSize ? 0 : size;
}

DWORD ReadOnlyFile::ReadUpTo(DWORD offset, void* buffer, DWORD count) {
  DWORD done = 0;
  if (!m_file || !m_file->ReadAt(offset, buffer, count, &done)) return 0;
  return done;
}

std::vector<BYTE> ReadOnlyFile::ReadBlock(DWORD offset, DWORD count) {
  std::vector<BYTE> bytes(count);
  bytes.resize(ReadUpTo(offset, bytes.data(), count));
  return bytes;
}

bool SnapshotFile::Read(void* buffer, DWORD count, DWORD* done) {
  const bool read = ReadAt(m_position, buffer, count, done);
  m_position += *done;
  return read;
}

bool SnapshotFile::ReadAt(DWORD position, void* buffer, DWORD count, DWORD* done) {
  const DWORD size = Size();
  *done = position < size ? std::min(count, size - position) : 0;
  if (*done != 0) std::memcpy(buffer, m_bytes.data() + position, *done);
  return true;
}

bool SnapshotFile::Write(const void*, DWORD, DWORD* done) {
  *done = 0;
  platform::SetLastError(platform::kErrorAccessDenied);
  return false;
}

bool SnapshotFile::WriteAt(DWORD, const void*, DWORD, DWORD* done) {
  return Write(nullptr, 0, done);
}

DWORD SnapshotFile::Seek(LONG distance, DWORD origin) {
  const long long base = origin == platform::kFileCurrent ? m_position
                         : origin == platform::kFileEnd   ? Size()
                                                          : 0;
  const long long target = base + distance;
  if (target < 0 || target >= platform::kInvalidSetFilePointer) {
    platform::SetLastError(platform::kErrorInvalidParameter);
    return platform::kInvalidSetFilePointer;
  }
  m_position = static_cast<DWORD>(target);
  return m_position;
}

bool SnapshotFile::SetEnd() {
  platform::SetLastError(platform::kErrorAccessDenied);
  return false;
}

bool SnapshotFile::Reserve(DWORD) { return SetEnd(); }

}  // namespace verify
}  // namespace molra
