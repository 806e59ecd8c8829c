// The zone's daylight rule, the clock's window and the conversions.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

#include "molra/molra.h"
#include "platform/clock.h"
#include "store/store_probe.h"
#include "support/temp_drives.h"

namespace {

using molra_test::TempDrives;

struct ZoneProbe : CMOLRA {
  using CMOLRA::m_bDST, CMOLRA::m_bOddBias, CMOLRA::m_tDstBegin, CMOLRA::m_tDstEnd,
      CMOLRA::m_ppBasket;
};

std::int64_t StampToTime(const SYSTEMTIME& stamp) {
  return molra::platform::StampToUnixMillis(stamp) / 1000;
}

SYSTEMTIME TimeToStamp(std::int64_t seconds) {
  SYSTEMTIME stamp = molra::platform::UnixMillisToStamp(seconds * 1000);
  stamp.wDayOfWeek = 0;
  return stamp;
}

SYSTEMTIME At(int y, int mo, int d, int h = 0, int mi = 0) {
  return SYSTEMTIME{static_cast<WORD>(y), static_cast<WORD>(mo), 0, static_cast<WORD>(d),
                    static_cast<WORD>(h), static_cast<WORD>(mi), 0, 0};
}

TIME_ZONE_INFORMATION Zone(LONG bias, LONG daylightBias, SYSTEMTIME daylight, SYSTEMTIME standard) {
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = bias;
  zone.DaylightBias = daylightBias;
  zone.DaylightDate = daylight;
  zone.StandardDate = standard;
  return zone;
}

// Rule dates: month, week of the Sunday, hour.
SYSTEMTIME Rule(int month, int week, int hour) { return At(0, month, week, hour); }

const TIME_ZONE_INFORMATION kNorth = Zone(300, -60, Rule(3, 2, 2), Rule(11, 1, 2));
const TIME_ZONE_INFORMATION kSouth = Zone(-600, -60, Rule(10, 1, 2), Rule(4, 1, 3));

class ZoneTest : public TempDrives {
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
  static std::tm Tm(const CTime& t) {
    std::tm local;
    t.GetLocalTm(&local);
    return local;
  }
};

// Every field, so that a stray weekday or second shows too.
std::string Text(const SYSTEMTIME& t) {
  char text[64];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u.%03u w%u", t.wYear, t.wMonth,
                t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds, t.wDayOfWeek);
  return text;
}

#define EXPECT_STAMP(actual, expected) EXPECT_EQ(Text(actual), Text(expected))

struct Row {
  SYSTEMTIME from, to;
};

TEST_F(ZoneTest, NorthernYearConvertsByTheWindowOfItsSundays) {
  auto store = StoreIn(kNorth);
  EXPECT_EQ(store->m_bDST, 1u);
  EXPECT_EQ(store->m_bOddBias, 0u);
  // The change is the true instant; the change back reads its rule hour.
  EXPECT_EQ(store->m_tDstBegin.GetTime(), CTime(StampToTime(At(2010, 3, 14, 7))).GetTime());
  EXPECT_EQ(store->m_tDstEnd.GetTime(), CTime(StampToTime(At(2010, 11, 7, 7))).GetTime());
  EXPECT_EQ(Tm(store->m_tDstBegin).tm_hour, 3);
  EXPECT_EQ(Tm(store->m_tDstEnd).tm_hour, 2);

  const Row toUtc[] = {
      {At(2010, 3, 14, 1, 59), At(2010, 3, 14, 6, 59)}, {At(2010, 3, 14, 2, 30), At(2010, 3, 14, 7, 30)},
      {At(2010, 3, 14, 3), At(2010, 3, 14, 7)},         {At(2010, 7, 1, 12), At(2010, 7, 1, 16)},
      {At(2010, 11, 7, 1, 30), At(2010, 11, 7, 5, 30)}, {At(2010, 11, 7, 2), At(2010, 11, 7, 7)},
      {At(2009, 7, 1, 12), At(2009, 7, 1, 16)},  // another year, the same window
  };
  for (const Row& row : toUtc) EXPECT_STAMP(Utc(*store, row.from), row.to) << row.from.wMonth;
  const Row toLocal[] = {
      {At(2010, 3, 14, 6, 59), At(2010, 3, 14, 1, 59)}, {At(2010, 3, 14, 7), At(2010, 3, 14, 3)},
      {At(2010, 7, 1, 16), At(2010, 7, 1, 12)},         {At(2010, 11, 7, 5, 59), At(2010, 11, 7, 1, 59)},
      {At(2010, 11, 7, 6), At(2010, 11, 7, 1)},         {At(2011, 1, 1, 1), At(2010, 12, 31, 20)},
  };
  for (const Row& row : toLocal) EXPECT_STAMP(Local(*store, row.from), row.to) << row.from.wMonth;
  // Flag 0 reads standard time all year.
  EXPECT_STAMP(Utc(*store, At(2010, 11, 7, 1, 30), 0), At(2010, 11, 7, 6, 30));
  const SYSTEMTIME july = At(2010, 7, 1, 16);
  EXPECT_STAMP(Local(*store, july, 0), At(2010, 7, 1, 11));
  // A chunk goes back with the window whatever flag it is given.
  _tagCHUNKHDR header{};
  std::memcpy(&header.stTime, &july, sizeof july);
  store->ChangeSystemToLocalTime(&header, 0);
  SYSTEMTIME chunk;
  std::memcpy(&chunk, &header.stTime, sizeof chunk);
  EXPECT_STAMP(chunk, At(2010, 7, 1, 12));

  // Round trips land where they began, but for the hour after the change back.
  for (std::int64_t t = StampToTime(At(2010, 1, 1)); t < StampToTime(At(2011, 1, 1)); t += 3600) {
    const SYSTEMTIME utc = TimeToStamp(t);
    const SYSTEMTIME back = Utc(*store, Local(*store, utc));
    const bool repeated = utc.wMonth == 11 && utc.wDay == 7 && utc.wHour == 6;
    EXPECT_EQ(StampToTime(back), repeated ? t - 3600 : t) << utc.wMonth << "/" << utc.wDay << " " << utc.wHour;
    const bool daylight = t >= StampToTime(At(2010, 3, 14, 7)) && t < StampToTime(At(2010, 11, 7, 6));
    EXPECT_EQ(store->GetIsDST(utc), daylight ? 1 : 0) << utc.wMonth << "/" << utc.wDay;
  }
}

TEST_F(ZoneTest, SouthernWindowWrapsOverNewYear) {
  auto store = StoreIn(kSouth);
  EXPECT_EQ(Tm(store->m_tDstBegin).tm_mday, 3);
  EXPECT_EQ(Tm(store->m_tDstBegin).tm_hour, 3);
  EXPECT_EQ(Tm(store->m_tDstEnd).tm_mday, 4);
  EXPECT_EQ(Tm(store->m_tDstEnd).tm_hour, 3);
  const Row toUtc[] = {
      {At(2010, 1, 15, 12), At(2010, 1, 15, 1)},        {At(2010, 4, 4, 2, 59), At(2010, 4, 3, 15, 59)},
      {At(2010, 4, 4, 3), At(2010, 4, 3, 17)},          {At(2010, 7, 1, 12), At(2010, 7, 1, 2)},
      {At(2010, 10, 3, 2, 30), At(2010, 10, 2, 16, 30)}, {At(2010, 10, 3, 3), At(2010, 10, 2, 16)},
      {At(2010, 11, 5, 12), At(2010, 11, 5, 1)},
  };
  for (const Row& row : toUtc) EXPECT_STAMP(Utc(*store, row.from), row.to) << row.from.wMonth;
  const Row toLocal[] = {
      {At(2010, 1, 15, 1), At(2010, 1, 15, 12)},        {At(2010, 4, 3, 15, 59), At(2010, 4, 4, 2, 59)},
      {At(2010, 4, 3, 16), At(2010, 4, 4, 2)},          {At(2010, 7, 1, 2), At(2010, 7, 1, 12)},
      {At(2010, 10, 2, 15, 59), At(2010, 10, 3, 1, 59)}, {At(2010, 10, 2, 16), At(2010, 10, 3, 3)},
      {At(2010, 12, 31, 14), At(2011, 1, 1, 1)},
  };
  for (const Row& row : toLocal) EXPECT_STAMP(Local(*store, row.from), row.to) << row.from.wMonth;
  // Daylight time at both ends of the year answers 1, the winter between 0.
  EXPECT_EQ(store->CheckDST(CTime(2010, 1, 15, 12, 0, 0, -1), 0), 1);
  EXPECT_EQ(store->CheckDST(CTime(2010, 7, 1, 12, 0, 0, -1), 0), 0);
  EXPECT_EQ(store->CheckDST(CTime(2010, 12, 1, 12, 0, 0, -1), 0), 1);
  EXPECT_EQ(store->CheckDST(CTime(2011, 1, 15, 12, 0, 0, -1), 0), 0);
}

TEST_F(ZoneTest, ChangeDaysBoundsAndTheRepeatedHour) {
  // Week 5 of a month with four Sundays is the fourth; of one with five, the fifth.
  auto lastSundays = StoreIn(Zone(-60, -60, Rule(3, 5, 2), Rule(10, 5, 3)));
  EXPECT_EQ(Tm(lastSundays->m_tDstBegin).tm_mday, 28);
  EXPECT_EQ(Tm(lastSundays->m_tDstEnd).tm_mday, 31);

  auto store = StoreIn(kNorth);
  EXPECT_EQ(store->CheckDST(store->m_tDstBegin, 0), 1);
  EXPECT_EQ(store->CheckDST(store->m_tDstEnd, 0), 0);
  EXPECT_EQ(store->CheckDST(CTime(store->m_tDstEnd.GetTime() - 1), 0), 1);
  EXPECT_EQ(store->CheckDST(CTime(2011, 7, 1, 12, 0, 0, -1), 0), 0);  // another year
  EXPECT_EQ(store->IsOverlappingTime(2010, 11, 7, 1), 1);
  EXPECT_EQ(store->IsOverlappingTime(2010, 11, 7, 0), 0);
  EXPECT_EQ(store->IsOverlappingTime(2010, 11, 7, 2), 0);
  EXPECT_EQ(store->IsOverlappingTime(2011, 11, 7, 1), 0);
  EXPECT_EQ(store->IsOverlappingTime(CTime(2010, 11, 7, 1, 30, 0, 1)), 1);

  // The runtime reads the change-back hour as standard time, the skipped
  // hour as daylight time.
  EXPECT_EQ(CTime(2010, 11, 7, 2, 0, 0, -1).GetTime(), StampToTime(At(2010, 11, 7, 7)));
  EXPECT_EQ(CTime(2010, 11, 7, 1, 30, 0, -1).GetTime(), StampToTime(At(2010, 11, 7, 5, 30)));
  EXPECT_EQ(CTime(2010, 3, 14, 2, 30, 0, -1).GetTime(), StampToTime(At(2010, 3, 14, 6, 30)));
  EXPECT_EQ(store->GetMaxDay(CTime(StampToTime(At(2010, 3, 1, 3)))), 28);  // still February here
}

TEST_F(ZoneTest, ZonesWithoutARuleShiftByTheBiasAlone) {
  const TIME_ZONE_INFORMATION noRule = Zone(-540, -60, SYSTEMTIME{}, SYSTEMTIME{});
  auto store = StoreIn(noRule);
  EXPECT_EQ(store->m_bDST, 0u);
  EXPECT_EQ(store->GetTimeZoneInfo().DaylightBias, 0);
  EXPECT_EQ(store->m_tDstBegin.GetTime(), 0);
  for (int flag = 0; flag <= 1; ++flag) {
    EXPECT_STAMP(Utc(*store, At(2010, 7, 1, 3), flag), At(2010, 6, 30, 18));
    EXPECT_STAMP(Local(*store, At(2010, 12, 31, 20), flag), At(2011, 1, 1, 5));
    EXPECT_EQ(store->CheckDST(CTime(2010, 7, 1, 0, 0, 0, -1), flag), 0);
  }
  EXPECT_EQ(store->GetIsDST(At(2010, 7, 1)), 0);
  EXPECT_EQ(store->m_bOddBias, 0u);
  EXPECT_EQ(StoreIn(Zone(-330, 0, {}, {}))->m_bOddBias, 1u);

  // An empty stamp is refused in any zone.
  for (const auto& zone : {kNorth, kSouth, noRule}) {
    auto any = StoreIn(zone);
    const SYSTEMTIME empty = At(0, 7, 1, 12);
    EXPECT_STAMP(Utc(*any, empty), empty);
    EXPECT_STAMP(Local(*any, empty), empty);
  }
}

TEST_F(ZoneTest, BasketInfoGivesTheSpanInLocalTime) {
  molra::platform::SetTimeZone(&kNorth);
  _tagBSKLOC location{};
  location.chDrive = 3;  // D
  location.lCount = 2;
  ZoneProbe store;
  _tagFSBSKINFO info{};
  info.dwDays = 77;
  EXPECT_EQ(store.GetBaksetInfo(0, &info), FS_ERR_PARAM);
  ASSERT_EQ(store.CreateFS(&location, 1), FS_OK);
  EXPECT_EQ(store.GetBaksetInfo(-1, &info), FS_ERR_PARAM);
  EXPECT_EQ(store.GetBaksetInfo(2, &info), FS_ERR_PARAM);
  EXPECT_EQ(info.dwDays, 77u);  // untouched by a refusal

  _tagFSBSKINFO& record = (*store.m_ppBasket)[1];
  const SYSTEMTIME first = At(2010, 7, 1, 16), last = At(2010, 12, 1, 5), created = At(2010, 7, 1, 9);
  std::memcpy(&record.stFirst, &first, sizeof first);
  std::memcpy(&record.stLast, &last, sizeof last);
  std::memcpy(&record.stCreated, &created, sizeof created);
  ASSERT_EQ(store.GetBaksetInfo(1, &info), FS_OK);
  SYSTEMTIME got;
  std::memcpy(&got, &info.stFirst, sizeof got);
  EXPECT_STAMP(got, At(2010, 7, 1, 12));
  std::memcpy(&got, &info.stLast, sizeof got);
  EXPECT_STAMP(got, At(2010, 12, 1, 0));
  std::memcpy(&got, &info.stCreated, sizeof got);
  EXPECT_STAMP(got, created);
  ASSERT_EQ(store.GetBaksetInfo(0, &info), FS_OK);  // no chunks: zero stamps stay
  std::memcpy(&got, &info.stFirst, sizeof got);
  EXPECT_EQ(got.wYear, 0);
}

TEST_F(ZoneTest, StoredBiasIsReadFromTheZoneFile) {
  CMOLRA store;
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = 0x11223344;
  zone.DaylightBias = 7;
  EXPECT_EQ(store.GetTimeZoneInfoFromFile(&zone), 0);  // no file: untouched
  EXPECT_EQ(zone.Bias, 0x11223344);
  std::filesystem::create_directories(Real('C', "fsdir"));
  std::ofstream(Real('C', "fsdir/tz.inf"), std::ios::binary) << std::string("\xAA\xBB\xCC", 3);
  EXPECT_EQ(store.GetTimeZoneInfoFromFile(&zone), 1);
  EXPECT_EQ(static_cast<DWORD>(zone.Bias), 0x11CCBBAAu);
  EXPECT_EQ(zone.DaylightBias, 7);
  // A text stream: CR LF reads as LF.
  std::ofstream(Real('C', "fsdir/tz.inf"), std::ios::binary) << std::string("\x01\r\n\x02\x03", 5);
  EXPECT_EQ(store.GetTimeZoneInfoFromFile(&zone), 1);
  EXPECT_EQ(static_cast<DWORD>(zone.Bias), 0x03020A01u);
}

}  // namespace
