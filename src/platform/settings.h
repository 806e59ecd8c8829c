// What the host has set through molra/platform.h, for the platform layer's
// own use. Each accessor is safe to call from any thread.
#pragma once

#include <string>

#include "molra/types.h"

namespace molra {
namespace platform {

// The directory that drive `letter` maps to (default "molra-drives/x").
std::string DriveRoot(char letter);

// True with the host's zone when one is set.
bool ZoneOverride(TIME_ZONE_INFORMATION* zone);

// True with the host's fixed UTC time when one is set.
bool FixedClock(SYSTEMTIME* utcNow);

// Runs the host's message hook once: the store's message step.
void MessageStep();

// Hands a message-box text to the host.
void ShowMessageBox(const char* text);

// Seconds between a recorder's flushes; 0 never.
DWORD FlushInterval();

// Whether players check each chunk against its index entry.
bool StrictChunks();

}  // namespace platform
}  // namespace molra
