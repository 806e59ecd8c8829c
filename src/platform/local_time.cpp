#include "platform/local_time.h"

#include <cstring>

#include "platform/clock.h"
#include "platform/env.h"
#include "platform/settings.h"

namespace molra {
namespace platform {
namespace {

constexpr std::int64_t kDay = 86400;

std::int64_t FloorDiv(std::int64_t a, std::int64_t b) {
  const std::int64_t q = a / b;
  return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

// Days since the epoch of a date whose month may run outside 1 to 12 and
// whose day may run outside the month.
std::int64_t Days(std::int64_t year, std::int64_t month, std::int64_t day) {
  const std::int64_t m0 = month - 1;
  year += FloorDiv(m0, 12);
  month = m0 - FloorDiv(m0, 12) * 12 + 1;
  return DayNumber(static_cast<int>(year), static_cast<int>(month), 1) + day - 1;
}

bool IsLeap(std::int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int MonthLength(std::int64_t year, int month) {
  static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return kDays[month - 1] + (month == 2 && IsLeap(year) ? 1 : 0);
}

// Local seconds (fields read as if UTC) of a rule date's change in `year`:
// the week's Sunday of the month, the last one for week 5, at the hour.
std::int64_t ChangeInYear(std::int64_t year, const SYSTEMTIME& rule) {
  const std::int64_t first = Days(year, rule.wMonth, 1);
  const std::int64_t weekday = ((first + 4) % 7 + 7) % 7;  // 1970-01-01 was a Thursday
  const std::int64_t sunday = 1 + (7 - weekday) % 7;
  std::int64_t day = sunday + 7 * std::int64_t{rule.wDay} - 7;
  const std::int64_t last = MonthLength(year, rule.wMonth);
  if (day > last) day -= 7 * (((day - last - 1) / 7) + 1);
  return (first + day - 1) * kDay + std::int64_t{rule.wHour} * 3600;
}

std::int64_t YearOf(std::int64_t localSeconds) {
  return UnixMillisToStamp(FloorDiv(localSeconds, kDay) * kDay * 1000).wYear;
}

// Whether a local reading of `year` lies in daylight time, the change
// hour itself in and the hour of the change back out.
bool LocalInDaylight(const TIME_ZONE_INFORMATION& zone, std::int64_t local) {
  const std::int64_t year = YearOf(local);
  const std::int64_t begin = ChangeInYear(year, zone.DaylightDate);
  const std::int64_t end = ChangeInYear(year, zone.StandardDate);
  if (begin < end) return begin <= local && local < end;
  return local >= begin || local < end;  // a southern year: daylight over New Year
}

}  // namespace

void GetTimeZoneInformation(TIME_ZONE_INFORMATION* zone, std::string* note) {
  if (note) note->clear();
  if (ZoneOverride(zone)) return;
  SYSTEMTIME now;
  platform::GetSystemTime(&now);
  std::string fitted;
  CurrentEnv()->MachineTimeZone(now.wYear, zone, &fitted);
  if (note) *note = fitted;
}

bool ZoneHasRule(const TIME_ZONE_INFORMATION& zone) {
  const auto valid = [](const SYSTEMTIME& d) { return d.wMonth >= 1 && d.wMonth <= 12; };
  return std::memcmp(&zone.StandardDate, &zone.DaylightDate, sizeof(SYSTEMTIME)) != 0 &&
         valid(zone.StandardDate) && valid(zone.DaylightDate);
}

std::int64_t LocalFieldsToUnix(const TIME_ZONE_INFORMATION& zone, std::int64_t year,
                               std::int64_t month, std::int64_t day, std::int64_t hour,
                               std::int64_t minute, std::int64_t second, int isDst) {
  const std::int64_t local = Days(year, month, day) * kDay + hour * 3600 + minute * 60 + second;
  bool daylight = false;
  if (ZoneHasRule(zone)) daylight = isDst > 0 || (isDst < 0 && LocalInDaylight(zone, local));
  const std::int64_t bias = std::int64_t{zone.Bias} + (daylight ? zone.DaylightBias : 0);
  return local + bias * 60;
}

void UnixToLocalTm(const TIME_ZONE_INFORMATION& zone, std::int64_t seconds, std::tm* out) {
  bool daylight = false;
  if (ZoneHasRule(zone)) {
    const std::int64_t standard = seconds - std::int64_t{zone.Bias} * 60;
    const std::int64_t year = YearOf(standard);
    const std::int64_t beginLocal = ChangeInYear(year, zone.DaylightDate);
    const std::int64_t endLocal = ChangeInYear(year, zone.StandardDate);
    const std::int64_t begin = beginLocal + std::int64_t{zone.Bias} * 60;
    const std::int64_t end =
        endLocal + (std::int64_t{zone.Bias} + zone.DaylightBias) * 60;
    daylight = beginLocal < endLocal ? (begin <= seconds && seconds < end)
                                     : (seconds >= begin || seconds < end);
  }
  const std::int64_t local =
      seconds - (std::int64_t{zone.Bias} + (daylight ? zone.DaylightBias : 0)) * 60;
  const std::int64_t days = FloorDiv(local, kDay);
  const std::int64_t rest = local - days * kDay;
  const SYSTEMTIME date = UnixMillisToStamp(days * kDay * 1000);
  std::memset(out, 0, sizeof *out);
  out->tm_year = date.wYear - 1900;
  out->tm_mon = date.wMonth - 1;
  out->tm_mday = date.wDay;
  out->tm_hour = static_cast<int>(rest / 3600);
  out->tm_min = static_cast<int>(rest / 60 % 60);
  out->tm_sec = static_cast<int>(rest % 60);
  out->tm_wday = date.wDayOfWeek;
  out->tm_yday = static_cast<int>(days - Days(date.wYear, 1, 1));
  out->tm_isdst = daylight ? 1 : 0;
}

}  // namespace platform
}  // namespace molra
