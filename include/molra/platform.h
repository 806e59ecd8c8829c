// Host-facing settings of the platform layer.
//
// The store speaks in the paths, clock and zone of the platform it was
// born on. A host decides here where each drive letter lies, which zone
// and clock the store sees, and how window-message steps and message boxes
// reach it. Each setting applies to the whole process.
#pragma once

#include <functional>
#include <string>

#include "molra/export.h"
#include "molra/types.h"

namespace molra {
namespace platform {

// Drive `letter` (either case) maps to `directory`. A drive whose root is
// not set lies in "molra-drives/<letter>" below the current directory.
// A root that does not exist yet is made when the store first uses it.
MOLRA_API void SetDriveRoot(char letter, const std::string& directory);

// The zone the store converts with; nullptr returns to the machine's own.
MOLRA_API void SetTimeZone(const TIME_ZONE_INFORMATION* zone);

// A fixed current time in UTC for every clock read of the store; nullptr
// returns to the real clock.
MOLRA_API void SetClock(const SYSTEMTIME* utcNow);

// Called once per message step during long walks, so that a host's window
// stays alive. The default does nothing.
MOLRA_API void SetMessageHook(std::function<void()> hook);

// Receives message-box texts. The default writes them to standard error.
MOLRA_API void SetMessageBoxHook(std::function<void(const char*)> hook);

// How often a recorder forces what it wrote to the disk. The store orders
// its writes so that a crash of the process loses nothing it reported
// saved, but a power cut can lose any write still in the page cache. With
// `seconds` above 0 a recorder flushes the data file, then the index, the
// day tables and the catalogue, whenever it leaves a basket and after the
// first save that comes `seconds` or more after the last flush. 0 (the
// default) never flushes.
MOLRA_API void SetFlushInterval(DWORD seconds);

// With `on`, a player also refuses a chunk whose stored header disagrees
// with the index entry that leads to it (channel, stamp to the
// millisecond, frame bits), or that reaches past the data the data file's
// head counts as written, as it refuses any damaged chunk. Off by default.
MOLRA_API void SetStrictChunks(bool on);

}  // namespace platform
}  // namespace molra
