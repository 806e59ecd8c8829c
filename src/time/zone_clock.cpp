#include "time/zone_clock.h"

#include <cstdint>

#include "platform/clock.h"

namespace molra {
namespace detail {

namespace {

// Month, day and hour as one ordered number.
long Triple(const SYSTEMTIME& t) { return (long{t.wMonth} * 100 + t.wDay) * 100 + t.wHour; }

}  // namespace

void CZoneClock::SetWindow(const TIME_ZONE_INFORMATION* zone, SYSTEMTIME begin, SYSTEMTIME end) {
  m_bZone = zone != nullptr;
  m_Tzi = zone ? *zone : TIME_ZONE_INFORMATION{};
  m_stBegin = begin;
  m_stEnd = end;
}

bool CZoneClock::InWindow(const SYSTEMTIME& t) const {
  const long day = Triple(t);
  if (m_stBegin.wMonth < m_stEnd.wMonth) {
    // Northern: begin to end within the year.
    if (t.wMonth < m_stBegin.wMonth) return false;
    if (t.wMonth == m_stBegin.wMonth) return day >= Triple(m_stBegin);
    return day < Triple(m_stEnd);
  }
  // Southern: from begin over New Year to end.
  if (t.wMonth > m_stBegin.wMonth) return true;
  if (t.wMonth == m_stBegin.wMonth) return day >= Triple(m_stBegin);
  return day < Triple(m_stEnd);
}

int CZoneClock::LocalToSystem(SYSTEMTIME* stamp, int bDaylight) const {
  if (!m_bZone || stamp->wYear == 0) return 0;
  LONG shift = m_Tzi.Bias;
  if (HasWindow() && bDaylight != 0 && InWindow(*stamp)) shift += m_Tzi.DaylightBias;
  AddMinutes(stamp, shift);
  return 1;
}

int CZoneClock::SystemToLocal(SYSTEMTIME* stamp, int bDaylight) const {
  if (!m_bZone || stamp->wYear == 0) return 0;
  // The daylight reading first: the window is stated in it.
  AddMinutes(stamp, -(m_Tzi.Bias + m_Tzi.DaylightBias));
  if (HasWindow() && bDaylight != 0 && InWindow(*stamp)) return 1;
  AddMinutes(stamp, m_Tzi.DaylightBias);
  return 1;
}

int CZoneClock::IsDaylight(SYSTEMTIME st) const {
  if (!m_bZone || !HasWindow()) return 0;
  AddMinutes(&st, -(m_Tzi.Bias + m_Tzi.DaylightBias));
  return InWindow(st) ? 1 : 0;
}

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

}  // namespace detail
}  // namespace molra
