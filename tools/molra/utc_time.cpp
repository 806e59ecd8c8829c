#include "utc_time.h"

#include <chrono>
#include <cstdio>

namespace molra_tools {

namespace {

constexpr long long kDay = 86400000;

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
long long DaysFromCivil(long long year, unsigned month, unsigned day) {
  year -= month <= 2;
  const long long era = (year >= 0 ? year : year - 399) / 400;
  const unsigned yearOfEra = static_cast<unsigned>(year - era * 400);
  const unsigned dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + static_cast<long long>(dayOfEra) - 719468;
}

}  // namespace

long long MillisecondsOf(SYSTEMTIME stamp) {
  return DaysFromCivil(stamp.wYear, stamp.wMonth, stamp.wDay) * kDay +
         ((stamp.wHour * 60LL + stamp.wMinute) * 60 + stamp.wSecond) * 1000 + stamp.wMilliseconds;
}

SYSTEMTIME StampAt(long long milliseconds) {
  long long days = milliseconds / kDay;
  long long rest = milliseconds % kDay;
  if (rest < 0) {
    rest += kDay;
    --days;
  }
  // The inverse of DaysFromCivil.
  days += 719468;
  const long long era = (days >= 0 ? days : days - 146096) / 146097;
  const unsigned dayOfEra = static_cast<unsigned>(days - era * 146097);
  const unsigned yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned shifted = (5 * dayOfYear + 2) / 153;
  const unsigned month = shifted < 10 ? shifted + 3 : shifted - 9;
  SYSTEMTIME stamp{};
  stamp.wYear = static_cast<WORD>(static_cast<long long>(yearOfEra) + era * 400 + (month <= 2));
  stamp.wMonth = static_cast<WORD>(month);
  stamp.wDay = static_cast<WORD>(dayOfYear - (153 * shifted + 2) / 5 + 1);
  stamp.wDayOfWeek = static_cast<WORD>(((days - 719468) % 7 + 11) % 7);  // 1970-01-01: Thursday
  stamp.wHour = static_cast<WORD>(rest / 3600000);
  stamp.wMinute = static_cast<WORD>(rest / 60000 % 60);
  stamp.wSecond = static_cast<WORD>(rest / 1000 % 60);
  stamp.wMilliseconds = static_cast<WORD>(rest % 1000);
  return stamp;
}

std::string MillisecondText(long long milliseconds) {
  const SYSTEMTIME s = StampAt(milliseconds);
  char text[48];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u.%03u", s.wYear, s.wMonth, s.wDay,
                s.wHour, s.wMinute, s.wSecond, s.wMilliseconds);
  return text;
}

long long NowMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace molra_tools
