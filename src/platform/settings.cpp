#include "platform/settings.h"

#include <atomic>
#include <cctype>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>

#include "molra/platform.h"

namespace molra {
namespace platform {
namespace {

struct Settings {
  std::mutex mutex;
  std::map<char, std::string> driveRoots;
  bool hasZone = false;
  TIME_ZONE_INFORMATION zone{};
  bool hasClock = false;
  SYSTEMTIME clock{};
  std::function<void()> messageHook;
  // Set while a hook is installed: the message step of every node of a
  // tree walk costs one load when there is none.
  std::atomic<bool> hasMessageHook{false};
  std::function<void(const char*)> messageBoxHook;
  std::atomic<DWORD> flushInterval{0};
  std::atomic<bool> strictChunks{false};
};

Settings& Get() {
  static Settings* settings = new Settings;  // never destroyed: usable at exit
  return *settings;
}

char Lower(char letter) {
  return static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
}

}  // namespace

void SetDriveRoot(char letter, const std::string& directory) {
  Settings& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.driveRoots[Lower(letter)] = directory;
}

void SetTimeZone(const TIME_ZONE_INFORMATION* zone) {
  Settings& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.hasZone = zone != nullptr;
  if (zone) s.zone = *zone;
}

void SetClock(const SYSTEMTIME* utcNow) {
  Settings& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.hasClock = utcNow != nullptr;
  if (utcNow) s.clock = *utcNow;
}

void SetMessageHook(std::function<void()> hook) {
  Settings& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.messageHook = std::move(hook);
  s.hasMessageHook.store(static_cast<bool>(s.messageHook));
}

void SetMessageBoxHook(std::function<void(const char*)> hook) {
  Settings& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.messageBoxHook = std::move(hook);
}

void SetFlushInterval(DWORD seconds) { Get().flushInterval.store(seconds); }

DWORD FlushInterval() { return Get().flushInterval.load(); }

void SetStrictChunks(bool on) { Get().strictChunks.store(on); }

bool StrictChunks() { return Get().strictChunks.load(); }

std::string DriveRoot(char letter) {
  Settings& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.driveRoots.find(Lower(letter));
  if (it != s.driveRoots.end()) return it->second;
  return std::string("molra-drives/") + Lower(letter);
}

bool ZoneOverride(TIME_ZONE_INFORMATION* zone) {
  Settings& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.hasZone && zone) *zone = s.zone;
  return s.hasZone;
}

bool FixedClock(SYSTEMTIME* utcNow) {
  Settings& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.hasClock && utcNow) *utcNow = s.clock;
  return s.hasClock;
}

void MessageStep() {
  Settings& s = Get();
  if (!s.hasMessageHook.load()) return;
  std::function<void()> hook;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    hook = s.messageHook;
  }
  // The hook runs unlocked: a host may call back into the store from it.
  if (hook) hook();
}

void ShowMessageBox(const char* text) {
  std::function<void(const char*)> hook;
  {
    Settings& s = Get();
    std::lock_guard<std::mutex> lock(s.mutex);
    hook = s.messageBoxHook;
  }
  if (hook) {
    hook(text ? text : "");
  } else {
    std::fprintf(stderr, "%s\n", text ? text : "");
  }
}

}  // namespace platform
}  // namespace molra
