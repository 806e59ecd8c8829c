#include "platform/clock.h"

#include "platform/env.h"
#include "platform/local_time.h"
#include "platform/settings.h"

namespace molra {
namespace platform {
namespace {

// Days since 1970-01-01 of a proleptic Gregorian date.
std::int64_t DaysFromCivil(std::int64_t y, std::int64_t m, std::int64_t d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const std::int64_t yoe = y - era * 400;
  const std::int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

}  // namespace

std::int64_t StampToUnixMillis(const SYSTEMTIME& stamp) {
  std::int64_t year = stamp.wYear;
  std::int64_t month = stamp.wMonth;
  if (month < 1) month = 1;
  year += (month - 1) / 12;
  month = (month - 1) % 12 + 1;
  const std::int64_t days = DaysFromCivil(year, month, 1) + stamp.wDay - 1;
  return ((days * 24 + stamp.wHour) * 60 + stamp.wMinute) * 60000 +
         stamp.wSecond * 1000 + stamp.wMilliseconds;
}

SYSTEMTIME UnixMillisToStamp(std::int64_t millis) {
  std::int64_t days = millis / 86400000;
  std::int64_t rest = millis % 86400000;
  if (rest < 0) {
    rest += 86400000;
    --days;
  }
  // Civil date from days since the epoch.
  const std::int64_t z = days + 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t doe = z - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  const std::int64_t d = doy - (153 * mp + 2) / 5 + 1;
  const std::int64_t m = mp + (mp < 10 ? 3 : -9);
  const std::int64_t y = yoe + era * 400 + (m <= 2);

  SYSTEMTIME stamp{};
  stamp.wYear = static_cast<WORD>(y);
  stamp.wMonth = static_cast<WORD>(m);
  stamp.wDay = static_cast<WORD>(d);
  stamp.wDayOfWeek = static_cast<WORD>(((days % 7) + 11) % 7);  // 1970-01-01 was a Thursday
  stamp.wHour = static_cast<WORD>(rest / 3600000);
  stamp.wMinute = static_cast<WORD>(rest / 60000 % 60);
  stamp.wSecond = static_cast<WORD>(rest / 1000 % 60);
  stamp.wMilliseconds = static_cast<WORD>(rest % 1000);
  return stamp;
}

bool DateTimeExists(int year, int month, int day, int hour, int minute, int second) {
  if (year < 100 || year > 9999 || month < 1 || month > 12 || day < 1) return false;
  if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59) {
    return false;
  }
  static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return day <= kDays[month - 1] + (month == 2 && leap ? 1 : 0);
}

std::int64_t DayNumber(int year, int month, int day) { return DaysFromCivil(year, month, day); }

void GetSystemTime(SYSTEMTIME* utcNow) {
  if (!FixedClock(utcNow)) CurrentEnv()->NowUtc(utcNow);
}

void GetLocalTime(SYSTEMTIME* localNow) {
  SYSTEMTIME utc;
  platform::GetSystemTime(&utc);
  const std::int64_t millis = StampToUnixMillis(utc);
  TIME_ZONE_INFORMATION zone;
  platform::GetTimeZoneInformation(&zone);
  const std::int64_t seconds = millis / 1000;  // the epoch lies behind every stamp
  std::tm local;
  UnixToLocalTm(zone, seconds, &local);
  const std::int64_t localSeconds = (DayNumber(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday) * 24 + local.tm_hour) * 3600 + local.tm_min * 60 + local.tm_sec;
  *localNow = UnixMillisToStamp(localSeconds * 1000 + millis % 1000);
}

void Sleep(DWORD milliseconds) { CurrentEnv()->Sleep(milliseconds); }

}  // namespace platform
}  // namespace molra
