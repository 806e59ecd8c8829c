// The store's clock: UTC now, local now and waiting, honouring the host's
// fixed clock and zone.
#pragma once

#include <cstdint>

#include "molra/types.h"

namespace molra {
namespace platform {

void GetSystemTime(SYSTEMTIME* utcNow);
void GetLocalTime(SYSTEMTIME* localNow);
void Sleep(DWORD milliseconds);

// Milliseconds since 1970-01-01 00:00 of a stamp's fields, and back
// (with the day of the week filled in). Fields are taken as they stand,
// so a month of 13 simply counts on into the next year.
std::int64_t StampToUnixMillis(const SYSTEMTIME& stamp);
SYSTEMTIME UnixMillisToStamp(std::int64_t millis);

}  // namespace platform
}  // namespace molra
