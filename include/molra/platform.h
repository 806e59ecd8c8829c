// Host-facing settings of the platform layer.
//
// The store speaks in the paths, clock and zone of the platform it was
// born on. A host decides here where each drive letter lies, which zone
// and clock the store sees, and how window-message steps and message boxes
// reach it. Each setting applies to the whole process.
#pragma once

#include <functional>
#include <string>

#include "molra/types.h"

namespace molra {
namespace platform {

// Drive `letter` (either case) maps to `directory`. A drive whose root is
// not set lies in "molra-drives/<letter>" below the current directory.
// A root that does not exist yet is made when the store first uses it.
void SetDriveRoot(char letter, const std::string& directory);

// The zone the store converts with; nullptr returns to the machine's own.
void SetTimeZone(const TIME_ZONE_INFORMATION* zone);

// A fixed current time in UTC for every clock read of the store; nullptr
// returns to the real clock.
void SetClock(const SYSTEMTIME* utcNow);

// Called once per message step during long walks, so that a host's window
// stays alive. The default does nothing.
void SetMessageHook(std::function<void()> hook);

// Receives message-box texts. The default writes them to standard error.
void SetMessageBoxHook(std::function<void(const char*)> hook);

}  // namespace platform
}  // namespace molra
