// Ordering stamps, counting days and moving stamps by minutes.
#include <gtest/gtest.h>

#include <cstring>

#include "molra/molra.h"
#include "time/zone_clock.h"

using molra::detail::CZoneClock;

namespace {

struct Store : CMOLRA {
  using CMOLRA::CompareSystemTime;
};

SYSTEMTIME At(WORD y, WORD mo, WORD d, WORD h = 0, WORD mi = 0, WORD s = 0, WORD ms = 0) {
  return {y, mo, 0, d, h, mi, s, ms};
}

TEST(StampsTest, CompareOrdersByTextAtTheGrainOfTheLevel) {
  Store store;
  const SYSTEMTIME a = At(2010, 3, 1, 1, 2, 3, 4), b = At(2010, 3, 1, 1, 2, 3, 5);
  const struct { SYSTEMTIME a, b; LONG level; LONG order; } rows[] = {
      {a, b, 0, -1}, {a, b, 7, -1}, {a, b, 99, -1}, {a, b, 1, 0},  // 1 drops the milliseconds
      {At(2010, 3, 1, 9, 59), At(2010, 3, 1, 10, 0), 3, -1},
      {At(2010, 3, 31), At(2010, 3, 1), 5, 0},
      {At(2010, 3, 31), At(2010, 3, 1), 4, 1},
      {At(2010, 4, 1), At(2010, 3, 1), 6, 0},
      {At(10000, 1, 1), At(9999, 1, 1), 6, -1},  // "10000" sorts before "9999"
      {At(2010, 10000, 1), At(2010, 9999, 1), 5, -1},
      {{2010, 3, 5, 1, 0, 0, 0, 0}, At(2010, 3, 1), 0, 0},  // the weekday is no part of a stamp
  };
  for (const auto& row : rows) {
    EXPECT_EQ(store.CompareSystemTime(&row.a, &row.b, row.level), row.order) << &row - rows;
    EXPECT_EQ(store.CompareSystemTime(&row.b, &row.a, row.level), -row.order) << &row - rows;
  }
}

TEST(StampsTest, IntervalsCountDatesAndFirstSundaysFollowTheWeekday) {
  CMOLRA store;
  const SYSTEMTIME late = At(2010, 3, 1, 23, 59), early = At(2010, 2, 28);
  EXPECT_EQ(store.IntervalSystemTime(&late, &early, 4), 1);
  EXPECT_EQ(store.IntervalSystemTime(&early, &late, 4), -1);
  const SYSTEMTIME leapA = At(2012, 3, 1), leapB = At(2012, 2, 28), none = At(2010, 2, 29);
  EXPECT_EQ(store.IntervalSystemTime(&leapA, &leapB, 4), 2);
  EXPECT_EQ(store.IntervalSystemTime(&none, &leapB, 4), 0);
  const WORD sundays[] = {0, 1, 7, 6, 5, 4, 3, 2, 0};
  for (int day = 0; day <= 8; ++day) EXPECT_EQ(store.GetDayOfFirstSunday(day), sundays[day]);
}

TEST(StampsTest, AddMinutesCarriesAndBorrowsThroughMonthsAndLeapDays) {
  const struct { SYSTEMTIME from; LONG minutes; SYSTEMTIME to; } rows[] = {
      {At(2010, 1, 1, 0, 30, 7, 9), -60, At(2009, 12, 31, 23, 30, 7, 9)},
      {At(2010, 12, 31, 23, 30), 30, At(2011, 1, 1, 0, 0)},
      {At(2010, 2, 28, 23, 30), 60, At(2010, 3, 1, 0, 30)},
      {At(2012, 2, 28, 23, 30), 60, At(2012, 2, 29, 0, 30)},
      {At(2012, 3, 1), -1, At(2012, 2, 29, 23, 59)},
      {At(2010, 5, 31, 13, 45), 1440, At(2010, 6, 1, 13, 45)},
      {At(2010, 5, 1, 13, 45), -1440, At(2010, 4, 30, 13, 45)},
  };
  for (const auto& row : rows) {
    SYSTEMTIME t = row.from;
    CZoneClock::AddMinutes(&t, row.minutes);
    EXPECT_EQ(std::memcmp(&t, &row.to, sizeof t), 0) << &row - rows;
  }
  const struct { int year, month, last; } months[] = {
      {2010, 2, 28}, {1900, 2, 28}, {2012, 2, 29}, {2000, 2, 29}, {2010, 4, 30}, {2010, 0, 27},
      {2010, 13, 27}};
  for (const auto& m : months) {
    EXPECT_EQ(CZoneClock::LastDayOfMonth(m.year, m.month), m.last) << m.year << "-" << m.month;
  }
}

}  // namespace
