// The store's own clock: moves stamps by minutes and knows month lengths.
// Conversion between local time and UTC builds on these.
#pragma once

#include "molra/types.h"

class CZoneClock {
 public:
  virtual ~CZoneClock() = default;

  // Moves a stamp by a signed count of minutes, carrying or borrowing at
  // most once per level: exact for every valid stamp within one day
  // (-1,440 to 1,440). Seconds, milliseconds and the weekday stay.
  static void AddMinutes(SYSTEMTIME* stamp, LONG minutes);
  // 28 to 31; 27 for a month that does not exist.
  static int LastDayOfMonth(int year, int month);
};
