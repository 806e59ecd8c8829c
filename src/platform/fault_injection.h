// Test-only faults: an Env that passes everything on to another one but
// fails writes on command, so that tests can cut the power in the middle
// of a sequence of writes and check what the store finds afterwards.
#pragma once

#include <atomic>

#include "platform/env.h"

namespace molra {
namespace platform {

class FaultInjectionEnv : public Env {
 public:
  explicit FaultInjectionEnv(Env* target = Env::Default()) : m_target(target) {}

  // The write count starts again at each of the two calls below. Writes
  // are counted by File::Write only; the first write after the call is
  // number 1.
  void FailWriteAt(DWORD n);     // only write n fails, writing nothing
  void CutPowerAtWrite(DWORD n); // write n and everything after it fail
  // The next `count` closes fail with `error`, leaving their files open.
  void FailCloses(DWORD count, DWORD error);
  // The next `count` reads fail with `error`, reading nothing.
  void FailReads(DWORD count, DWORD error);
  void Reset();                  // no faults at all; the count starts again

  DWORD Writes() const { return m_writes.load(); }
  bool PowerCut() const { return m_powerCut.load(); }

  // Counts one write; true when it is to fail.
  bool WriteFails();
  // True once the power is cut: every change to the disk then fails.
  bool ChangesFail() const { return m_powerCut.load(); }
  // True (with the error) when this close is to fail.
  bool CloseFails(DWORD* error);
  // True (with the error) when this read is to fail.
  bool ReadFails(DWORD* error);

  std::unique_ptr<File> OpenFile(const char* path, Access access, unsigned share,
                                 Disposition disposition) override;
  bool RemoveFile(const char* path) override;
  bool MakeDirectory(const char* path) override;
  bool Exists(const char* path) override { return m_target->Exists(path); }
  bool FileSize(const char* path, std::uint64_t* size) override {
    return m_target->FileSize(path, size);
  }
  DWORD GetAttributes(const char* path) override {
    return m_target->GetAttributes(path);
  }
  bool SetAttributes(const char* path, DWORD attributes) override;
  bool FindFiles(const char* pattern, std::vector<FoundFile>* found) override {
    return m_target->FindFiles(pattern, found);
  }
  bool AppendText(const char* path, const char* text) override;
  void NowUtc(SYSTEMTIME* now) override { m_target->NowUtc(now); }
  void MachineTimeZone(int year, TIME_ZONE_INFORMATION* zone, std::string* note) override {
    m_target->MachineTimeZone(year, zone, note);
  }
  void Sleep(DWORD milliseconds) override { m_target->Sleep(milliseconds); }

 private:
  void ResetWrites();

  Env* const m_target;
  std::atomic<DWORD> m_writes{0};
  std::atomic<DWORD> m_failAt{0};     // 0: none
  std::atomic<DWORD> m_cutAt{0};      // 0: none
  std::atomic<bool> m_powerCut{false};
  std::atomic<DWORD> m_closeFailures{0};
  std::atomic<DWORD> m_closeError{0};
  std::atomic<DWORD> m_readFailures{0};
  std::atomic<DWORD> m_readError{0};
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
