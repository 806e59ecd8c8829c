#include "disk/store_paths.h"
#include "disk/status_log.h"

#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/clock.h"
#include "platform/env.h"

namespace platform = molra::platform;

namespace {

constexpr DWORD kLogLimit = 10485760;  // 10 MiB

}  // namespace

namespace molra {

void AppendLogText(char const* logPath, char const* text) {
  platform::Env* env = platform::CurrentEnv();
  std::uint64_t size = 0;
  if (env->FileSize(logPath, &size) && size >= kLogLimit) env->RemoveFile(logPath);
  // Text that cannot be written (no log directory yet) is lost.
  env->AppendText(logPath, text);
}

void AppendLogLine(char const* logPath, char const* text) {
  SYSTEMTIME now;
  platform::GetLocalTime(&now);
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, " %u:%u:%u - %u:%u:%u\n", now.wYear, now.wMonth,
                now.wDay, now.wHour, now.wMinute, now.wSecond);
  const std::string line = std::string(text ? text : "") + stamp;
  AppendLogText(logPath, line.c_str());
}

void LogIoFailure(const char* operation, const char* path, DWORD offset, DWORD error) {
  const std::string line = std::string("fail to ") + operation + " " + (path ? path : "") +
                           " at " + std::to_string(offset) + " : error " +
                           std::to_string(error);
  detail::FsStatusLog(line.c_str());
}

}  // namespace molra

void molra::detail::FsStatusLog(char const* text) { molra::AppendLogLine(molra::kStatusLogPath, text); }
