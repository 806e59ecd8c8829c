// The zone's daylight rule, the clock's window and the conversions.
#include <cstdio>
#include <fstream>
#include <memory>
#include <utility>
#include <vector>

#include "molra/molra.h"
#include "platform/clock.h"
#include "store/store_probe.h"
#include "support/temp_drives.h"

namespace {

struct ZoneProbe : CMOLRA {
  using CMOLRA::m_bDST, CMOLRA::m_bOddBias, CMOLRA::m_tDstBegin, CMOLRA::m_tDstEnd,
      CMOLRA::m_ppBasket;
};

std::int64_t StampToTime(const SYSTEMTIME& stamp) {
  return molra::platform::StampToUnixMillis(stamp) / 1000;
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

// "month/day hour" of a CTime in local time.
std::string When(const CTime& t) {
  std::tm local;
  t.GetLocalTm(&local);
  return std::to_string(local.tm_mon + 1) + "/" + std::to_string(local.tm_mday) + " " +
         std::to_string(local.tm_hour);
}

class ZoneTest : public molra_test::TempDrives {
 protected:
  std::unique_ptr<ZoneProbe> StoreIn(const TIME_ZONE_INFORMATION& zone) {
    molra::platform::SetTimeZone(&zone);
    return std::make_unique<ZoneProbe>();
  }
  static SYSTEMTIME Local(ZoneProbe& store, SYSTEMTIME utc, int flag = 1) {
    store.ChangeSystemToLocalTime(utc, flag);
    return utc;
  }
  static SYSTEMTIME Utc(ZoneProbe& store, SYSTEMTIME local, int flag = 1) {
    store.ChangeLocalToSystemTime(local, flag);
    return local;
  }
};

// Stamps read to UTC and to local time: from, to.
TEST_F(ZoneTest, ConversionsFollowTheDaylightWindowInBothHemispheres) {
  using Rows = std::vector<std::pair<SYSTEMTIME, SYSTEMTIME>>;
  const struct { TIME_ZONE_INFORMATION zone; Rows toUtc, toLocal; } zones[] = {
      {kNorth,
       {{At(3, 14, 1, 59), At(3, 14, 6, 59)}, {At(3, 14, 2, 30), At(3, 14, 7, 30)},
        {At(3, 14, 3), At(3, 14, 7)}, {At(7, 1, 12), At(7, 1, 16)},
        {At(11, 7, 1, 30), At(11, 7, 5, 30)}, {At(11, 7, 2), At(11, 7, 7)},
        {At(7, 1, 12, 0, 2009), At(7, 1, 16, 0, 2009)}},  // another year, the same window
       {{At(3, 14, 6, 59), At(3, 14, 1, 59)}, {At(3, 14, 7), At(3, 14, 3)},
        {At(7, 1, 16), At(7, 1, 12)}, {At(11, 7, 5, 59), At(11, 7, 1, 59)},
        {At(11, 7, 6), At(11, 7, 1)}, {At(1, 1, 1, 0, 2011), At(12, 31, 20)}}},
      {kSouth,
       {{At(1, 15, 12), At(1, 15, 1)}, {At(4, 4, 2, 59), At(4, 3, 15, 59)},
        {At(4, 4, 3), At(4, 3, 17)}, {At(7, 1, 12), At(7, 1, 2)},
        {At(10, 3, 2, 30), At(10, 2, 16, 30)}, {At(10, 3, 3), At(10, 2, 16)},
        {At(11, 5, 12), At(11, 5, 1)}},
       {{At(1, 15, 1), At(1, 15, 12)}, {At(4, 3, 15, 59), At(4, 4, 2, 59)},
        {At(4, 3, 16), At(4, 4, 2)}, {At(7, 1, 2), At(7, 1, 12)},
        {At(10, 2, 15, 59), At(10, 3, 1, 59)}, {At(10, 2, 16), At(10, 3, 3)},
        {At(12, 31, 14), At(1, 1, 1, 0, 2011)}}}};
  for (const auto& z : zones) {
    auto store = StoreIn(z.zone);
    for (const auto& [from, to] : z.toUtc) EXPECT_STAMP(Utc(*store, from), to) << Text(from);
    for (const auto& [from, to] : z.toLocal) EXPECT_STAMP(Local(*store, from), to) << Text(from);
  }
  auto store = StoreIn(kNorth);
  // Flag 0 reads standard time all year, but a chunk goes back with the window.
  EXPECT_STAMP(Utc(*store, At(11, 7, 1, 30), 0), At(11, 7, 6, 30));
  EXPECT_STAMP(Local(*store, At(7, 1, 16), 0), At(7, 1, 11));
  _tagCHUNKHDR header{};
  header.stTime = At(7, 1, 16);
  store->ChangeSystemToLocalTime(&header, 0);
  EXPECT_STAMP(header.stTime, At(7, 1, 12));

  // Round trips land where they began, but for the hour after the change back.
  for (std::int64_t t = StampToTime(At(1, 1)); t < StampToTime(At(1, 1, 0, 0, 2011)); t += 3600) {
    SYSTEMTIME utc = molra::platform::UnixMillisToStamp(t * 1000);
    utc.wDayOfWeek = 0;
    const bool repeated = utc.wMonth == 11 && utc.wDay == 7 && utc.wHour == 6;
    EXPECT_EQ(StampToTime(Utc(*store, Local(*store, utc))), repeated ? t - 3600 : t) << Text(utc);
    const bool daylight = t >= StampToTime(At(3, 14, 7)) && t < StampToTime(At(11, 7, 6));
    EXPECT_EQ(store->GetIsDST(utc), daylight ? 1 : 0) << Text(utc);
  }
  // Southern daylight time at both ends of the year and the winter between not; the next year neither.
  const struct { int year, month, daylight; } days[] = {
      {2010, 1, 1}, {2010, 7, 0}, {2010, 12, 1}, {2011, 1, 0}};
  store = StoreIn(kSouth);
  for (const auto& d : days) {
    EXPECT_EQ(store->CheckDST(CTime(d.year, d.month, 15, 12, 0, 0, -1), 0), d.daylight) << d.month;
  }
}

TEST_F(ZoneTest, ChangeDaysBoundsAndTheRepeatedHour) {
  // Week 5 of a month with four Sundays is the fourth; of one with five, the fifth.
  auto lastSundays = StoreIn(Zone(-60, -60, Rule(3, 5, 2), Rule(10, 5, 3)));
  EXPECT_EQ(When(lastSundays->m_tDstBegin), "3/28 3");
  EXPECT_EQ(When(lastSundays->m_tDstEnd), "10/31 3");

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

TEST_F(ZoneTest, ZonesWithoutARuleShiftByTheBiasAlone) {
  const TIME_ZONE_INFORMATION noRule = Zone(-540, -60, SYSTEMTIME{}, SYSTEMTIME{});
  auto store = StoreIn(noRule);
  EXPECT_EQ(store->GetTimeZoneInfo().DaylightBias, 0);
  for (int flag = 0; flag <= 1; ++flag) {
    EXPECT_STAMP(Utc(*store, At(7, 1, 3), flag), At(6, 30, 18));
    EXPECT_STAMP(Local(*store, At(12, 31, 20), flag), At(1, 1, 5, 0, 2011));
    EXPECT_EQ(store->CheckDST(CTime(2010, 7, 1, 0, 0, 0, -1), flag), 0);
  }
  EXPECT_EQ(StoreIn(Zone(-330, 0, {}, {}))->m_bOddBias, 1u);

  // An empty stamp is refused in any zone.
  const SYSTEMTIME empty = At(7, 1, 12, 0, 0);
  for (const auto& zone : {kNorth, kSouth, noRule}) {
    auto any = StoreIn(zone);
    EXPECT_STAMP(Utc(*any, empty), empty);
    EXPECT_STAMP(Local(*any, empty), empty);
  }
}

TEST_F(ZoneTest, BasketInfoGivesTheSpanInLocalTime) {
  molra::platform::SetTimeZone(&kNorth);
  ZoneProbe store;
  _tagFSBSKINFO info{};
  info.dwDays = 77;
  _tagBSKLOC location{3, 2};  // two baskets on D
  ASSERT_EQ(store.CreateFS(&location, 1), FS_OK);
  EXPECT_EQ(store.GetBaksetInfo(2, &info), FS_ERR_PARAM);
  EXPECT_EQ(+info.dwDays, 77u);  // untouched by a refusal

  _tagFSBSKINFO& record = (*store.m_ppBasket)[1];
  record.stFirst = At(7, 1, 16);
  record.stLast = At(12, 1, 5);
  record.stCreated = At(7, 1, 9);
  ASSERT_EQ(store.GetBaksetInfo(1, &info), FS_OK);
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
