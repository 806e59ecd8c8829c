#include "platform/env.h"

#include <atomic>

namespace molra {
namespace platform {
namespace {

thread_local DWORD t_lastError = kErrorSuccess;
std::atomic<Env*> g_env{nullptr};

}  // namespace

DWORD GetLastError() { return t_lastError; }
void SetLastError(DWORD error) { t_lastError = error; }

Env* CurrentEnv() {
  Env* env = g_env.load(std::memory_order_acquire);
  return env ? env : Env::Default();
}

void SetCurrentEnv(Env* env) { g_env.store(env, std::memory_order_release); }

}  // namespace platform
}  // namespace molra
