// Test-only faults: an Env that passes everything on to another one but
// fails writes on command, so that tests can cut the power in the middle
// of a sequence of writes, or fill a drive, and check what the store finds
// afterwards.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "platform/power_cut_env.h"

namespace molra {
namespace platform {

class FaultInjectionEnv : public PowerCutEnv {
 public:
  explicit FaultInjectionEnv(Env* target = Env::Default()) : PowerCutEnv(target) {}

  // The write count starts again at each of the two calls below. Writes
  // are counted by File::Write only; the first write after the call is
  // number 1.
  void FailWriteAt(DWORD n);     // only write n fails, writing nothing
  void CutPowerAtWrite(DWORD n); // write n and everything after it fail
  // The next `count` closes fail with `error`, leaving their files open.
  void FailCloses(DWORD count, DWORD error);
  // The next `count` reads fail with `error`, reading nothing.
  void FailReads(DWORD count, DWORD error);
  // Drive `drive` has room for `bytes` more: a write, reservation or log
  // text that would take more fails with kErrorDiskFull, changing nothing.
  // A file's blocks reach from its start to the furthest byte written or
  // reserved through this env, or to its length when it was opened;
  // cutting or removing a file gives no room back.
  void FillDiskAfter(char drive, DWORD bytes);
  // Called before each positioned read, with the path as opened: another
  // writer of the file can go on meanwhile.
  std::function<void(const std::string& path, DWORD position, DWORD count)> beforeReadAt;
  void Reset();                  // no faults at all; the count starts again

  DWORD Writes() const { return m_writes.load(); }
  // The files flushed since the last Reset, in order, by the extension of
  // their path ("CDT", "CIN", ...).
  std::string Flushes() {
    std::lock_guard<std::mutex> lock(m_roomMutex);
    return m_flushes;
  }
  void CountFlush(const char* path);
  bool PowerCut() const { return m_powerCut.load(); }

  // Counts one write; true when it is to fail.
  bool WriteFails();
  // True once the power is cut: every change to the disk then fails.
  bool ChangesFail() const override { return m_powerCut.load(); }
  // True (with the error) when this close is to fail.
  bool CloseFails(DWORD* error);
  // True (with the error) when this read is to fail.
  bool ReadFails(DWORD* error);
  // Takes `bytes` of the room on the drive of `path`: false, with nothing
  // taken, when they are not there.
  bool TakeRoom(const char* path, std::uint64_t bytes);

  std::unique_ptr<File> OpenFile(const char* path, Access access, unsigned share,
                                 Disposition disposition) override;
  bool AppendText(const char* path, const char* text) override;

 private:
  void ResetWrites();

  std::atomic<DWORD> m_writes{0};
  std::atomic<DWORD> m_failAt{0};     // 0: none
  std::atomic<DWORD> m_cutAt{0};      // 0: none
  std::atomic<bool> m_powerCut{false};
  std::atomic<DWORD> m_closeFailures{0};
  std::atomic<DWORD> m_closeError{0};
  std::atomic<DWORD> m_readFailures{0};
  std::atomic<DWORD> m_readError{0};
  std::mutex m_roomMutex;  // guards the two below, one entry per drive letter
  bool m_roomLimited[26] = {};
  std::string m_flushes;
  std::uint64_t m_room[26] = {};
};

// Installs a FaultInjectionEnv for the life of the object.
class ScopedFaultInjection {
 public:
  ScopedFaultInjection() { SetCurrentEnv(&m_env); }
  ~ScopedFaultInjection() { SetCurrentEnv(nullptr); }
  ScopedFaultInjection(const ScopedFaultInjection&) = delete;
  ScopedFaultInjection& operator=(const ScopedFaultInjection&) = delete;

  FaultInjectionEnv* operator->() { return &m_env; }

 private:
  FaultInjectionEnv m_env;
};

}  // namespace platform
}  // namespace molra
