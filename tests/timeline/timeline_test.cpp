// The timeline: days, hours and minutes that hold recordings, answered
// from baskets' day records, and the folding of UTC hours into local days.
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "molra/platform.h"
#include "store/store_probe.h"
#include "timeline/day_record_reader.h"

namespace molra_test {
namespace {

constexpr DWORD kRecord = sizeof(_tagFSBSKTBL);

class Writer : public StoreProbe {
 public:
  using CMOLRA::m_FsHdr;
};

class Texts : public CWnd {
 public:
  void SetWindowText(const char* text) override { seen.emplace_back(text); }
  std::vector<std::string> seen;
};

// Daylight time from March's second to November's first Sunday.
TIME_ZONE_INFORMATION Zone(LONG bias, LONG daylightBias = 0) {
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = bias;
  zone.DaylightBias = daylightBias;
  zone.DaylightDate = SYSTEMTIME{0, 3, 0, 2, 2, 0, 0, 0};
  zone.StandardDate = SYSTEMTIME{0, 11, 0, 1, 2, 0, 0, 0};
  return zone;
}

SYSTEMTIME At(WORD month, WORD day, WORD hour = 0, WORD minute = 0) {
  return SYSTEMTIME{2010, month, 0, day, hour, minute, 0, 0};
}

struct Mark {
  int channel, hour, minute;
  DWORD value;
};

// A day record of 2010 with `value` in the hour cell and in one minute cell.
std::shared_ptr<_tagFSBSKTBL> Table(WORD month, WORD day, const std::vector<Mark>& marks) {
  auto record = std::make_shared<_tagFSBSKTBL>();
  record->dwYear = 2010;
  record->dwMonth = month;
  record->dwDay = day;
  for (const Mark& m : marks) {
    record->dwHour[m.channel][m.hour] = m.value;
    record->dwMinute[m.channel][m.hour][m.minute] = m.value;
  }
  return record;
}

// Row c holds ((c + 1) << 8) + h + 1 at hour h, save at hour 4.
std::shared_ptr<_tagFSBSKTBL> Rows() {
  auto record = Table(6, 1, {});
  for (int c = 0; c < 16; ++c) {
    for (int h = 0; h < 24; ++h) record->dwHour[c][h] = h == 4 ? 0 : ((c + 1) << 8) + h + 1;
  }
  return record;
}

class TimelineTest : public StoreTest {
 protected:
  void Make(LONG baskets, const TIME_ZONE_INFORMATION& zone = Zone(0)) {
    molra::platform::SetTimeZone(&zone);
    writer = std::make_unique<Writer>();
    writer->CallLoadFSinfo();
    _tagBSKLOC loc{3, baskets};
    ASSERT_EQ(writer->CreateFS(&loc, 1), FS_OK);
  }
  // Basket b's span and day records, as a recorder leaves them.
  void Fill(DWORD b, SYSTEMTIME first, SYSTEMTIME last,
            const std::vector<std::shared_ptr<_tagFSBSKTBL>>& days) {
    std::fstream file(Real('d', "MOLRA/FS00000" + std::to_string(b) + ".CTA"),
                      std::ios::in | std::ios::out | std::ios::binary);
    for (size_t k = 0; k < days.size(); ++k) {
      file.seekp(static_cast<long>(k * kRecord));
      file.write(reinterpret_cast<const char*>(days[k].get()), kRecord);
    }
    _tagFSBSKINFO& record = (*writer->m_ppBasket)[b];
    record.stFirst = first;
    record.stLast = last;
    record.dwDays = static_cast<DWORD>(days.size());
  }
  void Open(DWORD current = 0, DWORD oldest = 0) {
    writer->m_FsHdr.dwCurrent = current;
    writer->m_FsHdr.dwOldest = oldest;
    ASSERT_EQ(writer->SaveFSInfo(-1), FS_OK);
    reader = std::make_unique<CMOLRA>();
    ASSERT_EQ(reader->OpenFS(1), FS_OK);
  }

  std::vector<int> Days(LONG month) {
    std::vector<int> entries(31, 7);
    EXPECT_EQ(reader->GetSaveDateInfo(2010, month, entries.data(), 31), FS_OK);
    return entries;
  }
  static std::vector<int> Marked(std::initializer_list<int> days) {
    std::vector<int> entries(31);
    for (const int d : days) entries[d - 1] = 1;
    return entries;
  }
  std::vector<DWORD> Hours(LONG month, LONG day, CWnd* progress = nullptr) {
    std::vector<DWORD> cells(384, 7);
    EXPECT_EQ(reader->GetSaveTimeInfo(2010, month, day, -5, cells.data(), progress), FS_OK);
    return cells;
  }
  std::vector<DWORD> Minutes(LONG month, LONG day, LONG hour, LONG channel) {
    std::vector<DWORD> cells(60, 7);
    EXPECT_EQ(reader->GetSaveMinuteInfo(2010, month, day, hour, 99, channel, cells.data(), 0),
              FS_OK);
    return cells;
  }
  // Only the listed cells hold something.
  static std::vector<DWORD> Cells(size_t n, const std::vector<std::pair<size_t, DWORD>>& set) {
    std::vector<DWORD> cells(n);
    for (const auto& [index, value] : set) cells[index] = value;
    return cells;
  }

  std::unique_ptr<Writer> writer;
  std::unique_ptr<CMOLRA> reader;
};

TEST_F(TimelineTest, UtcHoursLandOnLocalDaysInAZoneAhead) {
  Make(1, Zone(-540));
  Fill(0, At(10, 31, 15, 10), At(10, 31, 23, 30),
       {Table(10, 31, {{3, 15, 10, 0x01010000u}, {3, 23, 30, 0x00010000u}})});
  Open();
  EXPECT_EQ(Days(11), Marked({1}));  // 00:10 and 08:30 on 1 November
  EXPECT_EQ(Days(10), Marked({}));
  EXPECT_EQ(Hours(10, 31), Cells(384, {{3 * 24 + 15, 0x01010000u}, {3 * 24 + 23, 0x00010000u}}));
  EXPECT_EQ(Hours(11, 1), Cells(384, {}));
  // Local hours 0 and 8 of 1 November are UTC hours of 31 October.
  EXPECT_EQ(Minutes(11, 1, 0, 3), Cells(60, {{10, 0x01010000u}}));
  EXPECT_EQ(Minutes(11, 1, 8, 3), Cells(60, {{30, 0x00010000u}}));
}

TEST_F(TimelineTest, BasketSpanningTwoMonthsGivesTheDaysOfEach) {
  Make(2);
  Fill(0, At(1, 30, 10), At(2, 2, 8),
       {Table(1, 30, {{0, 10, 0, 1}}), Table(1, 31, {{1, 5, 0, 1}}), Table(2, 1, {{2, 7, 0, 1}}),
        Table(2, 2, {{0, 8, 0, 1}})});
  Fill(1, At(2, 2, 9), At(2, 5, 12), {Table(2, 2, {{0, 9, 0, 1}}), Table(2, 5, {{15, 12, 0, 1}})});
  Open(1, 0);
  EXPECT_EQ(Days(2), Marked({1, 2, 5}));
  EXPECT_EQ(Days(1), Marked({30, 31}));
  EXPECT_EQ(Days(3), Marked({}));
}

TEST_F(TimelineTest, OlderBasketsCellWinsUnlessOnlyNewMarksAreRead) {
  Make(3);  // the ring runs 2, 0, 1
  Fill(2, At(3, 5, 9), At(3, 5, 10, 30), {Table(3, 5, {{2, 10, 15, 0x01000001u}})});
  Fill(0, At(3, 5, 10, 40), At(3, 6),
       {Table(3, 5, {{2, 10, 15, 0x02000001u}, {2, 11, 0, 0x02000001u}}), Table(3, 6, {})});
  Fill(1, At(3, 7), At(3, 7), {Table(3, 7, {{2, 10, 15, 0x04000001u}})});
  Open(1, 2);
  EXPECT_EQ(Hours(3, 5), Cells(384, {{2 * 24 + 10, 0x01000001u}, {2 * 24 + 11, 0x02000001u}}));
  EXPECT_EQ(Minutes(3, 5, 10, 2), Cells(60, {{15, 0x01000001u}}));

  // A basket that marked new hours since the catalogue was read: only such are read.
  (*writer->m_ppBasket)[0].dwFlags = 1;
  ASSERT_EQ(writer->SaveFSInfo(-1), FS_OK);
  EXPECT_EQ(Hours(3, 5), Cells(384, {{2 * 24 + 10, 0x02000001u}, {2 * 24 + 11, 0x02000001u}}));
  EXPECT_EQ(Minutes(3, 5, 10, 2), Cells(60, {{15, 0x01000001u}}));
}

TEST_F(TimelineTest, ProgressCountsBasketsFromTheOldest) {
  Make(4);  // the ring runs 1, 2, 3, 0
  Fill(1, At(4, 1), At(4, 1, 5), {Table(4, 1, {{0, 1, 0, 1}})});
  Fill(2, At(4, 1, 6), At(4, 2), {Table(4, 1, {{0, 6, 0, 1}}), Table(4, 2, {})});
  Fill(3, At(4, 3), At(4, 3), {Table(4, 3, {})});
  Fill(0, At(4, 4), At(4, 4), {Table(4, 4, {{9, 23, 0, 1}})});
  Open(0, 1);
  // A table that cannot be opened is skipped, and the walk goes on.
  std::filesystem::remove(Real('d', "MOLRA/FS000001.CTA"));
  std::filesystem::create_directory(Real('d', "MOLRA/FS000001.CTA"));
  Texts first;
  EXPECT_EQ(Hours(4, 1, &first), Cells(384, {{6, 1}}));
  EXPECT_EQ(first.seen, (std::vector<std::string>{"25", "50", "75"}));
  Texts last;
  EXPECT_EQ(Hours(4, 4, &last), Cells(384, {{9 * 24 + 23, 1}}));
  EXPECT_EQ(last.seen, std::vector<std::string>{"100"});
}

TEST_F(TimelineTest, RefusedCallsLeaveAClearedOutput) {
  Make(1);
  Open();
  CMOLRA closed;
  ASSERT_EQ(writer->OpenFS(0), FS_OK);
  for (const auto& [store, result] :
       {std::pair{&closed, FS_ERR_FILE}, {writer.get(), FS_ERR_MODE}}) {
    std::vector<int> days(31, 7);
    std::vector<DWORD> hours(384, 7), minutes(60, 7);
    EXPECT_EQ(store->GetSaveDateInfo(2010, 3, days.data(), 31), result);
    EXPECT_EQ(store->GetSaveTimeInfo(2010, 3, 5, 0, hours.data(), nullptr), result);
    EXPECT_EQ(store->GetSaveMinuteInfo(2010, 3, 5, 0, 0, 0, minutes.data(), 0), result);
    EXPECT_EQ(days, Marked({}));
    EXPECT_EQ(hours, Cells(384, {}));
    EXPECT_EQ(minutes, Cells(60, {}));
  }
  for (const auto& [channel, hour] : {std::pair{-1L, 0L}, {16L, 0L}, {0L, -1L}, {0L, 24L}}) {
    std::vector<DWORD> minutes(60, 7);
    EXPECT_EQ(reader->GetSaveMinuteInfo(2010, 3, 5, hour, 0, channel, minutes.data(), 0),
              FS_ERR_PARAM);
    EXPECT_EQ(minutes, Cells(60, {})) << channel << ' ' << hour;
  }
}

TEST_F(TimelineTest, RecordCutShortCountsAsUnreadableInBothReadModes) {
  Make(1);
  Fill(0, At(3, 5), At(3, 7, 23),
       {Table(3, 5, {{0, 1, 2, 5}}), Table(3, 6, {{1, 3, 4, 6}}), Table(3, 7, {{0, 0, 0, 7}})});
  // The third record's date, hour cells and first minute cells remain.
  std::filesystem::resize_file(Real('d', "MOLRA/FS000000.CTA"), 2 * kRecord + 4000);
  Open();
  const auto ask = [&] {
    return std::make_tuple(Days(3), Hours(3, 5), Hours(3, 7), Minutes(3, 6, 3, 1),
                           Minutes(3, 7, 0, 0));
  };
  const auto parts = ask();
  molra::DayRecordReader::SetWholeRecords(true);
  const auto whole = ask();
  molra::DayRecordReader::SetWholeRecords(false);
  EXPECT_EQ(parts, std::make_tuple(Marked({5, 6}), Cells(384, {{1, 5}}), Cells(384, {}),
                                   Cells(60, {{4, 6}}), Cells(60, {})));
  EXPECT_EQ(whole, parts);
}

TEST_F(TimelineTest, ShiftsMoveHourColumnsByTheZonesWholeHours) {
  const auto record = Rows();
  struct Case {
    LONG bias, daylightBias;
    int month;  // of the time asked: July lies in daylight time
    bool plus;
    int side, from, to, count;
  } cases[] = {
      {-540, 0, 7, false, 1, 0, 9, 15},  {-540, 0, 7, false, -1, 15, 0, 9},
      {300, -60, 7, true, -1, 4, 0, 20}, {300, -60, 7, true, 1, 0, 20, 4},
      {300, -60, 1, true, 1, 0, 19, 5},  {300, -30, 7, true, 1, 0, 19, 5},
      {-330, 0, 7, false, 1, 0, 5, 19},  {0, 0, 7, false, 1, 0, 0, 24},
      {0, 0, 7, true, -1, 0, 0, 24},     {0, 0, 7, false, -1, 0, 0, 0},
      {0, 0, 7, true, 1, 0, 0, 0},       {-540, 0, 7, false, 0, 0, 0, 0},
  };
  for (const Case& k : cases) {
    const TIME_ZONE_INFORMATION zone = Zone(k.bias, k.daylightBias);
    molra::platform::SetTimeZone(&zone);
    CMOLRA store;
    std::vector<DWORD> out(384);
    out[5 * 24 + 20] = 0xEE;  // a cell already set keeps its value
    (store.*(k.plus ? &CMOLRA::GetSaveHourPlus : &CMOLRA::GetSaveHourMinus))(
        k.side, record.get(), out.data(), CTime(2010, k.month, 15, 12, 0, 0));
    std::vector<DWORD> expected(384);
    for (int c = 0; c < 16; ++c) {
      for (int i = 0; i < k.count; ++i) expected[c * 24 + k.to + i] = record->dwHour[c][k.from + i];
    }
    expected[5 * 24 + 20] = 0xEE;
    EXPECT_EQ(out, expected) << k.bias << ' ' << k.daylightBias << ' ' << k.plus << ' ' << k.side;
  }
}

TEST_F(TimelineTest, ZoneBelowAnHourInDaylightTimeTouchesOnlyItsRows) {
  const TIME_ZONE_INFORMATION zone = Zone(30, -60);  // H is -1 in July
  molra::platform::SetTimeZone(&zone);
  CMOLRA store;
  const auto record = Rows();
  for (const bool plus : {false, true}) {
    for (const int side : {-1, 1}) {
      std::vector<DWORD> out(386);  // the rows in cells 1 to 384
      (store.*(plus ? &CMOLRA::GetSaveHourPlus : &CMOLRA::GetSaveHourMinus))(
          side, record.get(), out.data() + 1, CTime(2010, 7, 1, 12, 0, 0));
      for (size_t i = 0; i < out.size(); ++i) {
        const bool ownRow = i >= 1 && i <= 384 && out[i] >> 8 == (i - 1) / 24 + 1;
        EXPECT_TRUE(out[i] == 0 || ownRow) << plus << ' ' << side << ' ' << i;
      }
    }
  }
}

TEST_F(TimelineTest, IsEqualDayTakesTheLastHourOfTheAskedLocalMonth) {
  const TIME_ZONE_INFORMATION zone = Zone(-540);
  molra::platform::SetTimeZone(&zone);
  CMOLRA store;
  // Channel-major order: channel 1 comes last in March, channel 3 in April.
  const auto marked = Table(3, 31, {{0, 14, 0, 1}, {0, 20, 0, 1}, {1, 12, 0, 1}, {3, 15, 0, 1}});
  const auto empty = Table(3, 31, {});
  _tagFSBSKTBL* const m = marked.get();
  struct Case {
    _tagFSBSKTBL* record;
    int month, day, hour;  // day 0: no hit
  } cases[] = {{m, 4, 1, 0}, {m, 3, 31, 21}, {m, 5, 0, 0}, {empty.get(), 3, 0, 0}};
  for (const Case& k : cases) {
    SYSTEMTIME found{1999, 9, 9, 9, 9, 9, 9, 9};
    const SYSTEMTIME asked{2010, static_cast<WORD>(k.month), 0, 17, 0, 0, 0, 0};
    EXPECT_EQ(store.IsEqualDay(k.record, asked, found), k.day != 0 ? 1 : 0);
    using Fields = std::tuple<int, int, int, int>;
    EXPECT_EQ(Fields(found.wYear, found.wMonth, found.wDay, found.wHour),
              k.day != 0 ? Fields(2010, k.month, k.day, k.hour) : Fields(1999, 9, 9, 9));
  }
}

}  // namespace
}  // namespace molra_test
