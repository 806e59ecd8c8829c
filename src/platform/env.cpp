#include "platform/env.h"

#include <atomic>

namespace molra {
namespace platform {
namespace {

thread_local DWORD t_lastError = kErrorSuccess;
std::atomic<Env*> g_env{nullptr};

}  // namespace

bool File::Reserve(DWORD size) {
  static const char kZeros[65536] = {};
  const DWORD end = Size();
  if (end == kInvalidFileSize) return false;
  for (DWORD at = end; at < size;) {
    const DWORD count = size - at < sizeof kZeros ? size - at : DWORD{sizeof kZeros};
    DWORD done = 0;
    if (!WriteAt(at, kZeros, count, &done)) return false;
    if (done == 0) {
      SetLastError(kErrorDiskFull);
      return false;
    }
    at += done;
  }
  return true;
}

DWORD GetLastError() { return t_lastError; }
void SetLastError(DWORD error) { t_lastError = error; }

Env* CurrentEnv() {
  Env* env = g_env.load(std::memory_order_acquire);
  return env ? env : Env::Default();
}

void SetCurrentEnv(Env* env) { g_env.store(env, std::memory_order_release); }

}  // namespace platform
}  // namespace molra
