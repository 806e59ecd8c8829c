// The base of the test-only environments whose power can go off: from
// then on every change to the disk fails with a write fault, while reads
// still go through.
#pragma once

#include "platform/env.h"

namespace molra {
namespace platform {

class PowerCutEnv : public EnvWrapper {
 public:
  using EnvWrapper::EnvWrapper;

  // True once the power is off.
  virtual bool ChangesFail() const = 0;

  bool RemoveFile(const char* path) override { return Powered() && m_target->RemoveFile(path); }
  bool MakeDirectory(const char* path) override {
    return Powered() && m_target->MakeDirectory(path);
  }
  bool SetAttributes(const char* path, DWORD attributes) override {
    return Powered() && m_target->SetAttributes(path, attributes);
  }
  bool AppendText(const char* path, const char* text) override {
    return Powered() && m_target->AppendText(path, text);
  }

 protected:
  // False, with a write fault, once the power is off.
  bool Powered() const {
    if (!ChangesFail()) return true;
    SetLastError(kErrorWriteFault);
    return false;
  }
  // Without power no file comes into being, nor is one cut.
  bool MayOpen(const char* path, Disposition disposition) {
    const bool changes = disposition == Disposition::kCreateAlways ||
                         (disposition == Disposition::kOpenAlways && !m_target->Exists(path));
    return !changes || Powered();
  }
};

}  // namespace platform
}  // namespace molra
