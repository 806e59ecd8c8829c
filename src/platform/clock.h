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

// The calendar of the platform's date objects: a date and time exists when
// the year lies in 100 to 9999 and every field names a real Gregorian
// moment (February 29 in leap years only).
bool DateTimeExists(int year, int month, int day, int hour, int minute, int second);
// Days since 1970-01-01 of a date that exists.
std::int64_t DayNumber(int year, int month, int day);

}  // namespace platform
}  // namespace molra
