#include "time/zone_clock.h"

#include <cstdint>

#include "platform/clock.h"

int CZoneClock::LastDayOfMonth(int year, int month) {
  int day = 31;
  for (; day >= 28; --day) {
    if (molra::platform::DateTimeExists(year, month, day, 0, 0, 0)) return day;
  }
  return day;  // the probe ran out: 27
}

void CZoneClock::AddMinutes(SYSTEMTIME* stamp, LONG minutes) {
  const std::int64_t magnitude = minutes < 0 ? -std::int64_t{minutes} : minutes;
  const int q = static_cast<int>(magnitude / 60);
  const int r = static_cast<int>(magnitude % 60);
  if (minutes >= 0) {
    // Forward, on the unsigned fields.
    stamp->wMinute = static_cast<WORD>(stamp->wMinute + r);
    if (stamp->wMinute >= 60) {
      stamp->wMinute = static_cast<WORD>(stamp->wMinute - 60);
      ++stamp->wHour;
    }
    stamp->wHour = static_cast<WORD>(stamp->wHour + q);
    if (stamp->wHour >= 24) {
      stamp->wHour = static_cast<WORD>(stamp->wHour - 24);
      ++stamp->wDay;
    }
    if (stamp->wDay > LastDayOfMonth(stamp->wYear, stamp->wMonth)) {
      ++stamp->wMonth;
      stamp->wDay = 1;
    }
    if (stamp->wMonth > 12) {
      stamp->wMonth = static_cast<WORD>(stamp->wMonth - 12);
      ++stamp->wYear;
    }
    return;
  }
  // Backward, on the fields read as signed 16-bit numbers.
  const auto field = [](WORD w) { return static_cast<int>(static_cast<std::int16_t>(w)); };
  const auto store = [](int v) { return static_cast<WORD>(static_cast<std::int16_t>(v)); };
  int minute = field(stamp->wMinute) - r;
  int hour = field(stamp->wHour);
  if (minute < 0) {
    minute += 60;
    hour -= 1;
  }
  hour = field(store(hour)) - q;
  int day = field(stamp->wDay);
  if (hour < 0) {
    hour += 24;
    day -= 1;
  }
  day = field(store(day));
  int month = field(stamp->wMonth);
  int year = field(stamp->wYear);
  const bool borrowDay = day < 1;
  if (borrowDay) month -= 1;
  if (month < 1) {
    month += 12;
    year -= 1;
  }
  if (borrowDay) day = LastDayOfMonth(field(store(year)), field(store(month)));
  stamp->wMinute = store(minute);
  stamp->wHour = store(hour);
  stamp->wDay = store(day);
  stamp->wMonth = store(month);
  stamp->wYear = store(year);
}
