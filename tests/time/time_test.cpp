// Ordering stamps, counting days and moving stamps by minutes; the zone's
// daylight rule, the clock's window and the conversions, and the machine's
// zones against the C library's own reading of them.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "molra/molra.h"
#include "platform/clock.h"
#include "time/zone_clock.h"
#include "support/temp_drives.h"

namespace {

namespace platform = molra::platform;
using molra::detail::CZoneClock;

struct ZoneProbe : CMOLRA {
  using CMOLRA::CompareSystemTime, CMOLRA::m_bOddBias, CMOLRA::m_tDstBegin, CMOLRA::m_tDstEnd,
      CMOLRA::m_ppBasket;
};

std::int64_t StampToTime(const SYSTEMTIME& stamp) {
  return platform::StampToUnixMillis(stamp) / 1000;
}

// A stamp in 2010 unless the year is given.
SYSTEMTIME At(int mo, int d, int h = 0, int mi = 0, int y = 2010) {
  return SYSTEMTIME{static_cast<WORD>(y), static_cast<WORD>(mo), 0, static_cast<WORD>(d),
                    static_cast<WORD>(h), static_cast<WORD>(mi), 0, 0};
}

// Rule dates: month, week of the Sunday, hour.
SYSTEMTIME Rule(int month, int week, int hour) { return At(month, week, hour, 0, 0); }
TIME_ZONE_INFORMATION Zone(LONG bias, LONG daylightBias, SYSTEMTIME daylight, SYSTEMTIME standard) {
  return TIME_ZONE_INFORMATION{bias, {}, standard, 0, {}, daylight, daylightBias};
}
const TIME_ZONE_INFORMATION kNorth = Zone(300, -60, Rule(3, 2, 2), Rule(11, 1, 2));
const TIME_ZONE_INFORMATION kSouth = Zone(-600, -60, Rule(10, 1, 2), Rule(4, 1, 3));

// Every field, so that a stray weekday or second shows too. By value: a
// packed record's field cannot be bound to a reference.
std::string Text(SYSTEMTIME t) {
  char text[64];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u.%03u w%u", t.wYear, t.wMonth,
                t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds, t.wDayOfWeek);
  return text;
}
#define EXPECT_STAMP(actual, expected) EXPECT_EQ(Text(actual), Text(expected))

TEST(StampsTest, CompareOrdersByTextAtTheGrainOfTheLevel) {
  ZoneProbe store;
  const SYSTEMTIME a{2010, 3, 0, 1, 1, 2, 3, 4}, b{2010, 3, 0, 1, 1, 2, 3, 5};
  const struct { SYSTEMTIME a, b; LONG level; LONG order; } rows[] = {
      {a, b, 0, -1}, {a, b, 7, -1}, {a, b, 99, -1}, {a, b, 1, 0},  // 1 drops the milliseconds
      {At(3, 1, 9, 59), At(3, 1, 10), 3, -1},
      {At(3, 31), At(3, 1), 5, 0},
      {At(3, 31), At(3, 1), 4, 1},
      {At(4, 1), At(3, 1), 6, 0},
      {At(1, 1, 0, 0, 10000), At(1, 1, 0, 0, 9999), 6, -1},  // "10000" sorts before "9999"
      {At(10000, 1), At(9999, 1), 5, -1},
      {{2010, 3, 5, 1, 0, 0, 0, 0}, At(3, 1), 0, 0},  // the weekday is no part of a stamp
  };
  for (const auto& row : rows) {
    EXPECT_EQ(store.CompareSystemTime(&row.a, &row.b, row.level), row.order) << &row - rows;
    EXPECT_EQ(store.CompareSystemTime(&row.b, &row.a, row.level), -row.order) << &row - rows;
  }
}

TEST(StampsTest, IntervalsCountDatesAndFirstSundaysFollowTheWeekday) {
  CMOLRA store;
  const SYSTEMTIME late = At(3, 1, 23, 59), early = At(2, 28);
  EXPECT_EQ(store.IntervalSystemTime(&late, &early, 4), 1);
  EXPECT_EQ(store.IntervalSystemTime(&early, &late, 4), -1);
  const SYSTEMTIME leapA = At(3, 1, 0, 0, 2012), leapB = At(2, 28, 0, 0, 2012), none = At(2, 29);
  EXPECT_EQ(store.IntervalSystemTime(&leapA, &leapB, 4), 2);
  EXPECT_EQ(store.IntervalSystemTime(&none, &leapB, 4), 0);
  const WORD sundays[] = {0, 1, 7, 6, 5, 4, 3, 2, 0};
  for (int day = 0; day <= 8; ++day) EXPECT_EQ(store.GetDayOfFirstSunday(day), sundays[day]);
}

TEST(StampsTest, AddMinutesCarriesAndBorrowsThroughMonthsAndLeapDays) {
  const struct { SYSTEMTIME from; LONG minutes; SYSTEMTIME to; } rows[] = {
      {{2010, 1, 0, 1, 0, 30, 7, 9}, -60, {2009, 12, 0, 31, 23, 30, 7, 9}},
      {At(12, 31, 23, 30), 30, At(1, 1, 0, 0, 2011)},
      {At(2, 28, 23, 30), 60, At(3, 1, 0, 30)},
      {At(2, 28, 23, 30, 2012), 60, At(2, 29, 0, 30, 2012)},
      {At(3, 1, 0, 0, 2012), -1, At(2, 29, 23, 59, 2012)},
      {At(5, 31, 13, 45), 1440, At(6, 1, 13, 45)},
      {At(5, 1, 13, 45), -1440, At(4, 30, 13, 45)},
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

SYSTEMTIME Local(CMOLRA& store, SYSTEMTIME utc, int flag = 1) {
  store.ChangeSystemToLocalTime(utc, flag);
  return utc;
}
SYSTEMTIME Utc(CMOLRA& store, SYSTEMTIME local, int flag = 1) {
  store.ChangeLocalToSystemTime(local, flag);
  return local;
}

class ZoneTest : public molra_test::TempDrives {
 protected:
  std::unique_ptr<ZoneProbe> StoreIn(const TIME_ZONE_INFORMATION& zone) {
    platform::SetTimeZone(&zone);
    return std::make_unique<ZoneProbe>();
  }
};

// Local stamps read to UTC: from, to. The readings to local time are
// checked hour by hour against the runtime, with the machine's zones below.
TEST_F(ZoneTest, ConversionsFollowTheDaylightWindowInBothHemispheres) {
  using Rows = std::vector<std::pair<SYSTEMTIME, SYSTEMTIME>>;
  const struct { TIME_ZONE_INFORMATION zone; Rows toUtc; } zones[] = {
      {kNorth,
       {{At(3, 14, 1, 59), At(3, 14, 6, 59)}, {At(3, 14, 2, 30), At(3, 14, 7, 30)},
        {At(3, 14, 3), At(3, 14, 7)}, {At(7, 1, 12), At(7, 1, 16)},
        {At(11, 7, 1, 30), At(11, 7, 5, 30)}, {At(11, 7, 2), At(11, 7, 7)},
        {At(7, 1, 12, 0, 2009), At(7, 1, 16, 0, 2009)}}},  // another year, the same window
      {kSouth,
       {{At(1, 15, 12), At(1, 15, 1)}, {At(4, 4, 2, 59), At(4, 3, 15, 59)},
        {At(4, 4, 3), At(4, 3, 17)}, {At(7, 1, 12), At(7, 1, 2)},
        {At(10, 3, 2, 30), At(10, 2, 16, 30)}, {At(10, 3, 3), At(10, 2, 16)},
        {At(11, 5, 12), At(11, 5, 1)}}}};
  for (const auto& z : zones) {
    auto store = StoreIn(z.zone);
    for (const auto& [from, to] : z.toUtc) EXPECT_STAMP(Utc(*store, from), to) << Text(from);
    const SYSTEMTIME newYear = z.zone.Bias > 0 ? At(12, 31, 9) : At(1, 1, 1, 0, 2011);
    EXPECT_STAMP(Local(*store, At(12, 31, 14)), newYear);  // winter in the north only
  }
  auto store = StoreIn(kNorth);
  // Flag 0 reads standard time all year, but a chunk goes back with the window.
  EXPECT_STAMP(Utc(*store, At(11, 7, 1, 30), 0), At(11, 7, 6, 30));
  EXPECT_STAMP(Local(*store, At(7, 1, 16), 0), At(7, 1, 11));
  _tagCHUNKHDR header{};
  header.stTime = At(7, 1, 16);
  store->ChangeSystemToLocalTime(&header, 0);
  EXPECT_STAMP(header.stTime, At(7, 1, 12));
  // Southern daylight time at both ends of the year and the winter between
  // not; the next year neither.
  const struct { int year, month, daylight; } days[] = {
      {2010, 1, 1}, {2010, 7, 0}, {2010, 12, 1}, {2011, 1, 0}};
  store = StoreIn(kSouth);
  for (const auto& d : days) {
    EXPECT_EQ(store->CheckDST(CTime(d.year, d.month, 15, 12, 0, 0, -1), 0), d.daylight) << d.month;
  }
}

TEST_F(ZoneTest, ChangeDaysBoundsAndTheRepeatedHour) {
  // Week 5 of a month with four Sundays is the fourth; of one with five, the
  // fifth. Changes at 2:00 and 3:00 local, an hour ahead of UTC.
  auto lastSundays = StoreIn(Zone(-60, -60, Rule(3, 5, 2), Rule(10, 5, 3)));
  EXPECT_EQ(lastSundays->m_tDstBegin.GetTime(), StampToTime(At(3, 28, 1)));
  EXPECT_EQ(lastSundays->m_tDstEnd.GetTime(), StampToTime(At(10, 31, 2)));

  auto store = StoreIn(kNorth);
  EXPECT_EQ(store->CheckDST(store->m_tDstBegin, 0), 1);
  EXPECT_EQ(store->CheckDST(store->m_tDstEnd, 0), 0);
  const struct { int year, hour, repeated; } hours[] = {
      {2010, 1, 1}, {2010, 0, 0}, {2010, 2, 0}, {2011, 1, 0}};
  for (const auto& h : hours) {
    EXPECT_EQ(store->IsOverlappingTime(h.year, 11, 7, h.hour), h.repeated) << h.year << h.hour;
  }
  EXPECT_EQ(store->IsOverlappingTime(CTime(2010, 11, 7, 1, 30, 0, 1)), 1);

  // The runtime reads the change-back hour as standard time, the skipped
  // hour as daylight time.
  EXPECT_EQ(CTime(2010, 11, 7, 1, 30, 0, -1).GetTime(), StampToTime(At(11, 7, 5, 30)));
  EXPECT_EQ(CTime(2010, 3, 14, 2, 0, 0, -1).GetTime(), StampToTime(At(3, 14, 6)));
  EXPECT_EQ(store->GetMaxDay(CTime(StampToTime(At(3, 1, 3)))), 28);  // still February here
}

// Zones without a rule are read hour by hour against the runtime below;
// here what the runtime cannot show.
TEST_F(ZoneTest, ZonesWithoutARuleHaveNoDaylightBiasAndEmptyStampsStayInAnyZone) {
  const TIME_ZONE_INFORMATION noRule = Zone(-540, -60, SYSTEMTIME{}, SYSTEMTIME{});
  EXPECT_EQ(StoreIn(noRule)->GetTimeZoneInfo().DaylightBias, 0);
  EXPECT_STAMP(Utc(*StoreIn(noRule), At(7, 1, 3), 0), At(6, 30, 18));
  EXPECT_EQ(StoreIn(Zone(-330, 0, {}, {}))->m_bOddBias, 1u);
  const SYSTEMTIME empty = At(7, 1, 12, 0, 0);
  for (const auto& zone : {kNorth, kSouth, noRule}) {
    auto any = StoreIn(zone);
    EXPECT_STAMP(Utc(*any, empty), empty);
    EXPECT_STAMP(Local(*any, empty), empty);
  }
}

#ifndef _WIN32
// Puts TZ back as it was when it goes.
struct TzGuard {
  const char* const tz = std::getenv("TZ");
  const std::optional<std::string> old = tz ? std::optional<std::string>(tz) : std::nullopt;
  ~TzGuard() {
    old ? setenv("TZ", old->c_str(), 1) : unsetenv("TZ");
    tzset();
  }
};

// The machine's zone, as TZ names it, read by the store and by localtime_r
// hour by hour through this year. Hours at which the local reading differs,
// the daylight flag disagrees with it, or a round trip does not come back
// to the same local reading (the repeated hour goes back to its first
// pass); the first one in `first`.
int Mismatches(const char* zone, std::string* first) {
  setenv("TZ", zone, 1);
  tzset();
  const std::time_t now = std::time(nullptr);
  std::tm utc;
  gmtime_r(&now, &utc);
  const WORD year = static_cast<WORD>(utc.tm_year + 1900);
  SYSTEMTIME mid{year, 7, 0, 1, 12, 0, 0, 0};
  platform::SetClock(&mid);
  platform::SetTimeZone(nullptr);
  CMOLRA store;
  const LONG standard = -store.GetTimeZoneInfo().Bias * 60;
  const std::int64_t start = StampToTime({year, 1, 0, 1, 0, 0, 0, 0});
  int count = 0;
  for (std::int64_t t = start; t < start + 366 * 86400; t += 3600) {
    const SYSTEMTIME stamp = platform::UnixMillisToStamp(t * 1000), local = Local(store, stamp);
    const std::time_t when = static_cast<std::time_t>(t);
    std::tm runtime;
    localtime_r(&when, &runtime);
    const std::int64_t mine = StampToTime(local) - t, theirs = timegm(&runtime) - t;
    const bool daylight = store.GetIsDST(stamp) == 1;
    const SYSTEMTIME back = Local(store, Utc(store, local));
    if ((mine != theirs || daylight != (mine != standard) || Text(back) != Text(local)) &&
        count++ == 0) {
      *first = "at " + std::to_string(t) + ": store " + std::to_string(mine / 60) +
               " min ahead of UTC, runtime " + std::to_string(theirs / 60) + ", daylight " +
               std::to_string(daylight) + ", back " + Text(back);
    }
  }
  return count;
}

// Zone files and rules given in TZ itself. Changes on other weekdays, at
// hours beyond the day or off the whole hour are fitted to the year the
// object was made in: in that year every whole hour still reads as the
// runtime reads it, and the status log says what was fitted. A half-hour
// shift is judged at the window's grain of an hour: the hour before the
// change already reads as daylight time. A zone not known reads as UTC.
TEST_F(ZoneTest, MachineZonesMatchTheRuntimeAndWhatIsFittedOrUnknownIsLogged) {
  const TzGuard guard;
  std::filesystem::create_directories(Real('C', "fsdir"));
  setenv("TZ", "No/Such_Zone", 1);
  platform::SetTimeZone(nullptr);
  EXPECT_EQ(CMOLRA().GetTimeZoneInfo().Bias, 0);
  EXPECT_NE(ReadAll(Real('C', "fsdir/status.dat")).find("No/Such_Zone"), std::string::npos);
  const struct { const char* zone; int mismatches; } rows[] = {
      {"EST5EDT,M3.2.0,M11.1.0", 0}, {"AEST-10AEDT,M10.1.0,M4.1.0/3", 0}, {"<+0545>-5:45", 0},
      {"<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", 1}, {"IST-2IDT,M3.4.4/26,M10.5.0", 0},
      {"<+0330>-3:30<+0430>,J79/24,J263/24", 0}, {"<-03>3<-02>,M3.5.0/-2,M10.5.0/-1", 0},
      {"America/New_York", 0}, {"Europe/Berlin", 0}, {"Australia/Sydney", 0}, {"Asia/Tokyo", 0},
      {"Asia/Kolkata", 0}, {"Pacific/Auckland", 0}, {"Europe/Dublin", 0}, {"Asia/Jerusalem", 0},
      {"America/Santiago", 0}, {"America/Nuuk", 0}, {"Africa/Cairo", 0}, {"Pacific/Chatham", 0},
      {"Australia/Lord_Howe", 1}};  // the rules in TZ first: they need no zone files
  for (const auto& row : rows) {
    if (std::strchr(row.zone, '/') && std::strchr(row.zone, ',') == nullptr &&
        !FileExists(std::string("/usr/share/zoneinfo/") + row.zone)) {
      GTEST_SKIP() << row.zone << " is not installed";
    }
    std::string first;
    EXPECT_EQ(Mismatches(row.zone, &first), row.mismatches) << row.zone << " " << first;
  }
  const std::string log = ReadAll(Real('C', "fsdir/status.dat"));
  EXPECT_NE(log.find("M3.4.4/26"), std::string::npos) << log;  // the Jerusalem change
}
#endif

TEST_F(ZoneTest, BasketInfoGivesTheSpanInLocalTime) {
  auto store = StoreIn(kNorth);
  _tagFSBSKINFO info{};
  info.dwDays = 77;
  _tagBSKLOC location{3, 2};  // two baskets on D
  ASSERT_EQ(store->CreateFS(&location, 1), FS_OK);
  EXPECT_EQ(store->GetBaksetInfo(2, &info), FS_ERR_PARAM);
  EXPECT_EQ(+info.dwDays, 77u);  // untouched by a refusal
  _tagFSBSKINFO& record = (*store->m_ppBasket)[1];
  record.stFirst = At(7, 1, 16);
  record.stLast = At(12, 1, 5);
  record.stCreated = At(7, 1, 9);
  ASSERT_EQ(store->GetBaksetInfo(1, &info), FS_OK);
  EXPECT_STAMP(info.stFirst, At(7, 1, 12));
  EXPECT_STAMP(info.stLast, At(12, 1, 0));
  EXPECT_STAMP(info.stCreated, At(7, 1, 9));  // stays UTC
}

TEST_F(ZoneTest, StoredBiasIsReadFromTheZoneFile) {
  CMOLRA store;
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = 0x11223344;
  zone.DaylightBias = 7;
  EXPECT_EQ(store.GetTimeZoneInfoFromFile(&zone), 0);  // no file: untouched
  EXPECT_EQ(zone.Bias, 0x11223344);
  std::filesystem::create_directories(Real('C', "fsdir"));
  const auto read = [&](const std::string& bytes) {
    std::ofstream(Real('C', "fsdir/tz.inf"), std::ios::binary) << bytes;
    EXPECT_EQ(store.GetTimeZoneInfoFromFile(&zone), 1);
    return static_cast<DWORD>(zone.Bias);
  };
  EXPECT_EQ(read(std::string("\xAA\xBB\xCC", 3)), 0x11CCBBAAu);  // only the bytes there
  EXPECT_EQ(zone.DaylightBias, 7);
  EXPECT_EQ(read(std::string("\x01\r\n\x02\x03", 5)), 0x03020A01u);  // a text stream: CR LF is LF
  EXPECT_EQ(read(std::string("\x05\x1A\x06\x07", 4)), 0x03020A05u);  // and ends at Ctrl-Z
}

}  // namespace
