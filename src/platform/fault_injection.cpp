#include "platform/fault_injection.h"

#include <cstring>
#include <string>

namespace molra {
namespace platform {
namespace {

class FaultyFile final : public File {
 public:
  FaultyFile(std::unique_ptr<File> target, FaultInjectionEnv* env, const char* path)
      : m_target(std::move(target)), m_env(env), m_path(path) {
    const DWORD size = m_target->Size();
    m_blocksEnd = size == kInvalidFileSize ? 0 : size;
  }

  bool Read(void* buffer, DWORD count, DWORD* done) override {
    if (Failed(done)) return false;
    return m_target->Read(buffer, count, done);
  }
  bool Write(const void* buffer, DWORD count, DWORD* done) override {
    if (m_env->WriteFails()) {
      *done = 0;
      SetLastError(kErrorWriteFault);
      return false;
    }
    const DWORD here = m_target->Seek(0, kFileCurrent);
    if (here != kInvalidSetFilePointer && !Grow(std::uint64_t{here} + count)) {
      *done = 0;
      return false;
    }
    return m_target->Write(buffer, count, done);
  }
  bool ReadAt(DWORD position, void* buffer, DWORD count, DWORD* done) override {
    // Called through a copy: a hook may clear itself while it runs.
    if (m_env->beforeReadAt) {
      const auto hook = m_env->beforeReadAt;
      hook(m_path, position, count);
    }
    if (Failed(done)) return false;
    return m_target->ReadAt(position, buffer, count, done);
  }
  bool WriteAt(DWORD position, const void* buffer, DWORD count, DWORD* done) override {
    if (m_env->WriteFails()) {
      *done = 0;
      SetLastError(kErrorWriteFault);
      return false;
    }
    if (!Grow(std::uint64_t{position} + count)) {
      *done = 0;
      return false;
    }
    return m_target->WriteAt(position, buffer, count, done);
  }
  DWORD Seek(LONG distance, DWORD origin) override {
    return m_target->Seek(distance, origin);
  }
  bool SetEnd() override {
    if (m_env->ChangesFail()) {
      SetLastError(kErrorWriteFault);
      return false;
    }
    return m_target->SetEnd();
  }
  bool Reserve(DWORD size) override {
    if (m_env->ChangesFail()) {
      SetLastError(kErrorWriteFault);
      return false;
    }
    return Grow(size) && m_target->Reserve(size);
  }
  DWORD Size() override { return m_target->Size(); }
  bool Flush() override {
    m_env->CountFlush(m_path.c_str());
    return m_target->Flush();
  }
  bool Advise(Advice advice, DWORD position, DWORD length) override {
    return m_target->Advise(advice, position, length);
  }
  // IsFileAt is not passed on: a store then closes and opens a basket's
  // files as it moves to it, and meets every fault set on those calls.
  bool Close() override {
    DWORD error = 0;
    if (m_env->CloseFails(&error)) {
      SetLastError(error);
      return false;
    }
    return m_target->Close();
  }

 private:
  bool Failed(DWORD* done) {
    DWORD error = 0;
    if (!m_env->ReadFails(&error)) return false;
    *done = 0;
    SetLastError(error);
    return true;
  }

  // Takes the room for blocks up to `end` from the drive.
  bool Grow(std::uint64_t end) {
    if (end <= m_blocksEnd) return true;
    if (!m_env->TakeRoom(m_path.c_str(), end - m_blocksEnd)) {
      SetLastError(kErrorDiskFull);
      return false;
    }
    m_blocksEnd = end;
    return true;
  }

  std::unique_ptr<File> m_target;
  FaultInjectionEnv* m_env;
  const std::string m_path;
  std::uint64_t m_blocksEnd;  // the file's blocks reach this far
};

// The index of a path's drive letter, or -1 when it names none.
int DriveOf(const char* path) {
  const char letter = static_cast<char>(path[0] | 0x20);
  return letter >= 'a' && letter <= 'z' && path[1] == ':' ? letter - 'a' : -1;
}

}  // namespace

void FaultInjectionEnv::FailWriteAt(DWORD n) {
  ResetWrites();
  m_failAt = n;
}

void FaultInjectionEnv::CutPowerAtWrite(DWORD n) {
  ResetWrites();
  m_cutAt = n;
}

void FaultInjectionEnv::FailCloses(DWORD count, DWORD error) {
  m_closeError = error;
  m_closeFailures = count;
}

void FaultInjectionEnv::FailReads(DWORD count, DWORD error) {
  m_readError = error;
  m_readFailures = count;
}

void FaultInjectionEnv::FillDiskAfter(char drive, DWORD bytes) {
  const char root[] = {drive, ':', '\0'};
  const int d = DriveOf(root);
  if (d < 0) return;
  std::lock_guard<std::mutex> lock(m_roomMutex);
  m_roomLimited[d] = true;
  m_room[d] = bytes;
}

void FaultInjectionEnv::Reset() {
  ResetWrites();
  m_closeFailures = 0;
  m_readFailures = 0;
  beforeReadAt = nullptr;
  std::lock_guard<std::mutex> lock(m_roomMutex);
  for (bool& limited : m_roomLimited) limited = false;
  m_flushes.clear();
}

bool FaultInjectionEnv::TakeRoom(const char* path, std::uint64_t bytes) {
  const int d = DriveOf(path);
  std::lock_guard<std::mutex> lock(m_roomMutex);
  if (d < 0 || !m_roomLimited[d]) return true;
  if (bytes > m_room[d]) return false;
  m_room[d] -= bytes;
  return true;
}

void FaultInjectionEnv::ResetWrites() {
  m_writes = 0;
  m_failAt = 0;
  m_cutAt = 0;
  m_powerCut = false;
}

void FaultInjectionEnv::CountFlush(const char* path) {
  const char* dot = std::strrchr(path, '.');
  std::lock_guard<std::mutex> lock(m_roomMutex);
  if (!m_flushes.empty()) m_flushes += ' ';
  m_flushes += dot ? dot + 1 : path;
}

bool FaultInjectionEnv::WriteFails() {
  const DWORD n = ++m_writes;
  if (m_cutAt != 0 && n >= m_cutAt) m_powerCut = true;
  return m_powerCut || n == m_failAt;
}

namespace {

// Takes one from a count of faults still to come; false when none is left.
bool TakeOne(std::atomic<DWORD>* left) {
  DWORD now = left->load();
  while (now > 0) {
    if (left->compare_exchange_weak(now, now - 1)) return true;
  }
  return false;
}

}  // namespace

bool FaultInjectionEnv::CloseFails(DWORD* error) {
  if (!TakeOne(&m_closeFailures)) return false;
  *error = m_closeError;
  return true;
}

bool FaultInjectionEnv::ReadFails(DWORD* error) {
  if (!TakeOne(&m_readFailures)) return false;
  *error = m_readError;
  return true;
}

std::unique_ptr<File> FaultInjectionEnv::OpenFile(const char* path, Access access,
                                                  unsigned share,
                                                  Disposition disposition) {
  if (!MayOpen(path, disposition)) return nullptr;
  std::unique_ptr<File> file = m_target->OpenFile(path, access, share, disposition);
  if (!file) return nullptr;
  return std::unique_ptr<File>(new FaultyFile(std::move(file), this, path));
}

bool FaultInjectionEnv::AppendText(const char* path, const char* text) {
  if (!Powered()) return false;
  if (!TakeRoom(path, std::strlen(text))) {
    SetLastError(kErrorDiskFull);
    return false;
  }
  return m_target->AppendText(path, text);
}

}  // namespace platform
}  // namespace molra
