#include "platform/win32_machine_zone.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/clock.h"
#include "platform/posix_zone_rule.h"

namespace molra {
namespace platform {
namespace {

bool InSundayForm(const SYSTEMTIME& d) {
  return d.wYear == 0 && d.wDayOfWeek == 0 && d.wDay >= 1 && d.wDay <= 5 && d.wHour <= 23 &&
         d.wMinute == 0 && d.wSecond == 0 && d.wMilliseconds == 0;
}

bool Plausible(const SYSTEMTIME& d) {
  return d.wMonth >= 1 && d.wMonth <= 12 && d.wHour <= 23 && d.wMinute <= 59 &&
         d.wSecond <= 59 && (d.wYear != 0 || (d.wDay >= 1 && d.wDay <= 5 && d.wDayOfWeek <= 6));
}

// Minutes west of UTC as a rule offset ("5", "-5:30").
std::string Offset(LONG minutesWest) {
  char text[32];
  const long magnitude = std::labs(static_cast<long>(minutesWest));
  std::snprintf(text, sizeof text, "%s%ld:%02ld", minutesWest < 0 ? "-" : "", magnitude / 60,
                magnitude % 60);
  return text;
}

// A change as a rule date: the weekday of a week of the month, or a fixed
// date read as the day of `year` (counted from 0).
std::string Change(const SYSTEMTIME& d, int year) {
  char text[64];
  if (d.wYear == 0) {
    std::snprintf(text, sizeof text, "M%u.%u.%u/%u:%02u:%02u", unsigned{d.wMonth},
                  unsigned{d.wDay}, unsigned{d.wDayOfWeek}, unsigned{d.wHour},
                  unsigned{d.wMinute}, unsigned{d.wSecond});
  } else {
    const long long day = DayNumber(year, d.wMonth, d.wDay) - DayNumber(year, 1, 1);
    std::snprintf(text, sizeof text, "%lld/%u:%02u:%02u", day, unsigned{d.wHour},
                  unsigned{d.wMinute}, unsigned{d.wSecond});
  }
  return text;
}

}  // namespace

void FitZoneRecord(const TIME_ZONE_INFORMATION& reported, int year,
                   TIME_ZONE_INFORMATION* zone, std::string* note) {
  *zone = reported;
  note->clear();
  const SYSTEMTIME& back = reported.StandardDate;
  const SYSTEMTIME& ahead = reported.DaylightDate;
  if (!Plausible(back) || !Plausible(ahead) || (InSundayForm(back) && InSundayForm(ahead))) {
    return;
  }
  // The rule parser knows how to fit such changes; speak its language.
  const std::string rule = "STD" + Offset(reported.Bias + reported.StandardBias) + "DST" +
                           Offset(reported.Bias + reported.DaylightBias) + "," +
                           Change(ahead, year) + "," + Change(back, year);
  TIME_ZONE_INFORMATION fitted{};
  if (!ParsePosixZoneRule(rule, year, &fitted, note)) return;
  // The parser folds the standard bias into the bias, and a rule that
  // keeps daylight time all year into a zone without changes.
  zone->Bias = fitted.Bias;
  zone->StandardBias = 0;
  zone->DaylightBias = fitted.DaylightBias;
  zone->StandardDate = fitted.StandardDate;
  zone->DaylightDate = fitted.DaylightDate;
}

void ReadMachineZone(int year, TIME_ZONE_INFORMATION* zone, std::string* note) {
  TIME_ZONE_INFORMATION reported{};
  if (::GetTimeZoneInformation(&reported) == TIME_ZONE_ID_INVALID) {
    const unsigned long error = ::GetLastError();
    std::memset(zone, 0, sizeof *zone);
    *note = "the machine's time zone cannot be read (error " + std::to_string(error) +
            "); UTC is used";
    return;
  }
  FitZoneRecord(reported, year, zone, note);
}

}  // namespace platform
}  // namespace molra
