// Ordering stamps at a chosen grain and counting days between dates.
#include <cstdio>
#include <cstring>

#include "molra/molra.h"
#include "platform/clock.h"
#include "time/zone_clock.h"

using molra::detail::CZoneClock;

namespace {

void Fields(const SYSTEMTIME& t, unsigned out[7]) {
  out[0] = t.wYear;
  out[1] = t.wMonth;
  out[2] = t.wDay;
  out[3] = t.wHour;
  out[4] = t.wMinute;
  out[5] = t.wSecond;
  out[6] = t.wMilliseconds;
}

}  // namespace

LONG CMOLRA::CompareSystemTime(const SYSTEMTIME* a, const SYSTEMTIME* b, LONG level) {
  if (a == nullptr || b == nullptr) return 0;  // no stamp orders nothing
  // The fields a grain prints, in order: year, month, day, hour, minute,
  // second, milliseconds; one fewer for each grain above the millisecond.
  const int count = level >= kBySecond && level <= kByYear ? 7 - static_cast<int>(level) : 7;
  unsigned fa[7];
  unsigned fb[7];
  Fields(*a, fa);
  Fields(*b, fb);
  bool narrow = true;
  for (int i = 0; i < count; ++i) narrow = narrow && fa[i] <= 9999 && fb[i] <= 9999;
  if (narrow) {
    // Four-digit fields print to equal widths, so the text order is the
    // order of the numbers: no need to print them on the recording path.
    for (int i = 0; i < count; ++i) {
      if (fa[i] != fb[i]) return fa[i] < fb[i] ? -1 : 1;
    }
    return 0;
  }
  // A wider field widens its text and shifts what follows: order by text.
  char ta[48];
  char tb[48];
  int la = 0;
  int lb = 0;
  for (int i = 0; i < count; ++i) {
    la += std::snprintf(ta + la, sizeof ta - static_cast<size_t>(la), "%04d", static_cast<int>(fa[i]));
    lb += std::snprintf(tb + lb, sizeof tb - static_cast<size_t>(lb), "%04d", static_cast<int>(fb[i]));
  }
  const int order = std::strcmp(ta, tb);  // compares as unsigned characters
  return order < 0 ? -1 : order > 0 ? 1 : 0;
}

int CMOLRA::IntervalSystemTime(const SYSTEMTIME* a, const SYSTEMTIME* b, LONG /*level*/) {
  namespace platform = molra::platform;
  if (a == nullptr || b == nullptr) return 0;  // as for a date that does not exist
  if (!platform::DateTimeExists(a->wYear, a->wMonth, a->wDay, 0, 0, 0) ||
      !platform::DateTimeExists(b->wYear, b->wMonth, b->wDay, 0, 0, 0)) {
    return 0;
  }
  return static_cast<int>(platform::DayNumber(a->wYear, a->wMonth, a->wDay) -
                          platform::DayNumber(b->wYear, b->wMonth, b->wDay));
}

WORD CMOLRA::GetDayOfFirstSunday(int weekDay) {
  static const WORD kFirstSunday[8] = {0, 1, 7, 6, 5, 4, 3, 2};
  return weekDay >= 1 && weekDay <= 7 ? kFirstSunday[weekDay] : 0;
}

WORD CMOLRA::GetMaxDay(CTime t) {
  std::tm local;
  t.GetLocalTm(&local);
  return static_cast<WORD>(CZoneClock::LastDayOfMonth(local.tm_year + 1900, local.tm_mon + 1));
}
