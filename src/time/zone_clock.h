// The store's own clock: moves stamps between local time and UTC with the
// zone's bias and one year's daylight window, and knows month lengths.
#pragma once

#include "molra/types.h"

namespace molra {
namespace detail {

class CZoneClock {
 public:
  CZoneClock() = default;
  CZoneClock(const CZoneClock&) = default;
  CZoneClock& operator=(const CZoneClock&) = default;
  virtual ~CZoneClock() = default;

  // The zone (copied; null: none) and the window's bounds, both as a
  // daylight clock reads them; only month, day and hour count, the same in
  // every year. A bound whose year is 0 means there is no window.
  void SetWindow(const TIME_ZONE_INFORMATION* zone, SYSTEMTIME begin, SYSTEMTIME end);

  SYSTEMTIME Begin() const { return m_stBegin; }
  SYSTEMTIME End() const { return m_stEnd; }

  // In place; 1 when converted, 0 (stamp untouched) without a zone or for
  // a stamp of year 0. A zero flag reads every stamp as standard time.
  int LocalToSystem(SYSTEMTIME* stamp, int bDaylight) const;
  int SystemToLocal(SYSTEMTIME* stamp, int bDaylight) const;
  // 1 when the UTC stamp lies in daylight time.
  int IsDaylight(SYSTEMTIME st) const;

  // Moves a stamp by a signed count of minutes, carrying or borrowing at
  // most once per level: exact for every valid stamp within one day
  // (-1,440 to 1,440). Seconds, milliseconds and the weekday stay.
  static void AddMinutes(SYSTEMTIME* stamp, LONG minutes);
  // 28 to 31; 27 for a month that does not exist.
  static int LastDayOfMonth(int year, int month);

 private:
  bool InWindow(const SYSTEMTIME& t) const;
  bool HasWindow() const { return m_stBegin.wYear != 0 && m_stEnd.wYear != 0; }

  bool m_bZone = false;
  TIME_ZONE_INFORMATION m_Tzi{};
  SYSTEMTIME m_stBegin{};
  SYSTEMTIME m_stEnd{};
};

}  // namespace detail
}  // namespace molra
