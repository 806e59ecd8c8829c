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
using Record = std::shared_ptr<_tagFSBSKTBL>;

struct Texts : CWnd {
  void SetWindowText(const char* text) override { seen.emplace_back(text); }
  std::vector<std::string> seen;
};

// Daylight time from March's second to November's first Sunday.
void UseZone(LONG bias, LONG daylightBias = 0) {
  const TIME_ZONE_INFORMATION zone{
      bias, {}, {0, 11, 0, 1, 2, 0, 0, 0}, 0, {}, {0, 3, 0, 2, 2, 0, 0, 0}, daylightBias};
  molra::platform::SetTimeZone(&zone);
}

SYSTEMTIME At(WORD month, WORD day, WORD hour = 0, WORD minute = 0) {
  return SYSTEMTIME{2010, month, 0, day, hour, minute, 0, 0};
}

struct Mark { int channel, hour, minute; DWORD value; };

// A day record of 2010 with each mark's value in its hour cell and one minute cell.
Record Table(WORD month, WORD day, const std::vector<Mark>& marks) {
  Record record(new _tagFSBSKTBL{2010, month, day, {}, {}});
  for (const Mark& m : marks) {
    record->dwHour[m.channel][m.hour] = m.value;
    record->dwMinute[m.channel][m.hour][m.minute] = m.value;
  }
  return record;
}

std::vector<int> Marked(std::initializer_list<int> days) {
  std::vector<int> entries(31);
  for (const int d : days) entries[d - 1] = 1;
  return entries;
}
std::vector<DWORD> Cells(size_t n, std::initializer_list<std::pair<size_t, DWORD>> set = {}) {
  std::vector<DWORD> cells(n);
  for (const auto& [index, value] : set) cells[index] = value;
  return cells;
}

class TimelineTest : public StoreTest {
 protected:
  struct Basket { SYSTEMTIME first, last; std::vector<Record> days; };
  // Baskets as a recorder leaves them; then a reader opens the store.
  void Open(const std::vector<Basket>& baskets, DWORD current = 0, DWORD oldest = 0,
            LONG bias = 0) {
    UseZone(bias);
    writer = std::make_unique<StoreProbe>();
    writer->CallLoadFSinfo();
    _tagBSKLOC loc{3, static_cast<LONG>(baskets.size())};
    ASSERT_EQ(writer->CreateFS(&loc, 1), FS_OK);
    for (size_t b = 0; b < baskets.size(); ++b) {
      std::fstream file(Real('d', "MOLRA/FS00000" + std::to_string(b) + ".CTA"),
                        std::ios::in | std::ios::out | std::ios::binary);
      for (const Record& d : baskets[b].days) file.write(reinterpret_cast<char*>(d.get()), kRecord);
      _tagFSBSKINFO& record = (*writer->m_ppBasket)[b];
      record.stFirst = baskets[b].first;
      record.stLast = baskets[b].last;
      record.dwDays = static_cast<DWORD>(baskets[b].days.size());
    }
    writer->GetFSInfo()->dwCurrent = current;
    writer->GetFSInfo()->dwOldest = oldest;
    ASSERT_EQ(writer->SaveFSInfo(-1), FS_OK);
    reader = std::make_unique<CMOLRA>();
    ASSERT_EQ(reader->OpenFS(1), FS_OK);
  }

  // Outputs start as 7s, so that an entry left alone shows.
  std::vector<int> Days(LONG month) {
    std::vector<int> entries(31, 7);
    EXPECT_EQ(reader->GetSaveDateInfo(2010, month, entries.data(), 31), answer);
    return entries;
  }
  std::vector<DWORD> Hours(LONG month, LONG day, CWnd* progress = nullptr) {
    std::vector<DWORD> cells(384, 7);
    EXPECT_EQ(reader->GetSaveTimeInfo(2010, month, day, -5, cells.data(), progress), answer);
    return cells;
  }
  std::vector<DWORD> Minutes(LONG month, LONG day, LONG hour, LONG channel) {
    std::vector<DWORD> cells(60, 7);
    EXPECT_EQ(reader->GetSaveMinuteInfo(2010, month, day, hour, 99, channel, cells.data(), 0),
              answer);
    return cells;
  }

  LONG answer = FS_OK;  // what the queries are to return
  std::unique_ptr<StoreProbe> writer;
  std::unique_ptr<CMOLRA> reader;
};

TEST_F(TimelineTest, DaysComeFromEachMonthABasketSpansUtcHoursLandOnLocalDaysAndRefusalsClear) {
  // Nine hours ahead: the hours of 31 January after 15:00 land on 1 February.
  Open({{At(1, 30, 10), At(2, 2, 8),
         {Table(1, 30, {{0, 10, 0, 1}}),
          Table(1, 31, {{3, 15, 10, 0x01010000u}, {3, 23, 30, 0x00010000u}}),
          Table(2, 1, {{2, 7, 0, 1}}), Table(2, 2, {{0, 8, 0, 1}})}},
        {At(2, 2, 9), At(2, 5, 12), {Table(2, 2, {{0, 9, 0, 1}}), Table(2, 5, {{15, 12, 0, 1}})}}},
       1, 0, -540);
  EXPECT_EQ(Days(1), Marked({30}));
  EXPECT_EQ(Days(2), Marked({1, 2, 5}));
  // The hour query takes a UTC day, the minute query a local hour.
  EXPECT_EQ(Hours(1, 31), Cells(384, {{3 * 24 + 15, 0x01010000u}, {3 * 24 + 23, 0x00010000u}}));
  EXPECT_EQ(Minutes(2, 1, 0, 3), Cells(60, {{10, 0x01010000u}}));

  // A refused query leaves a cleared output: a channel or an hour out of
  // range, a store open to record or never opened.
  answer = FS_ERR_PARAM;
  for (const auto& [channel, hour] : {std::pair{-1L, 0L}, {16L, 0L}, {0L, -1L}, {0L, 24L}}) {
    EXPECT_EQ(Minutes(2, 1, hour, channel), Cells(60)) << channel << ' ' << hour;
  }
  for (const bool recording : {true, false}) {
    reader = std::make_unique<CMOLRA>();
    ASSERT_TRUE(!recording || reader->OpenFS(0) == FS_OK);
    answer = recording ? FS_ERR_MODE : FS_ERR_FILE;
    EXPECT_EQ(std::make_tuple(Days(2), Hours(1, 31), Minutes(2, 1, 0, 3)),
              std::make_tuple(Marked({}), Cells(384), Cells(60)));
  }
}

TEST_F(TimelineTest, OlderBasketsCellWinsUnlessOnlyNewMarksAreReadAndProgressCountsBaskets) {
  Open({{At(3, 5, 10, 40), At(3, 6),  // the ring runs 2, 0, 1
         {Table(3, 5, {{2, 10, 15, 0x02000001u}, {2, 11, 0, 0x02000001u}}), Table(3, 6, {})}},
        {At(3, 7), At(3, 7), {Table(3, 7, {{2, 10, 15, 0x04000001u}})}},
        {At(3, 5, 9), At(3, 5, 10, 30), {Table(3, 5, {{2, 10, 15, 0x01000001u}})}}},
       1, 2);
  // Progress counts the baskets from the oldest, up to the first that does
  // not hold the day.
  Texts progress;
  EXPECT_EQ(Hours(3, 5, &progress),
            Cells(384, {{2 * 24 + 10, 0x01000001u}, {2 * 24 + 11, 0x02000001u}}));
  EXPECT_EQ(progress.seen, (std::vector<std::string>{"33", "66", "100"}));
  EXPECT_EQ(Minutes(3, 5, 10, 2), Cells(60, {{15, 0x01000001u}}));
  // Marked by the writer after the reader opened: the query reloads the
  // catalogue, and the hour query then reads only such baskets.
  (*writer->m_ppBasket)[0].dwFlags = 1;
  ASSERT_EQ(writer->SaveFSInfo(-1), FS_OK);
  EXPECT_EQ(Hours(3, 5), Cells(384, {{2 * 24 + 10, 0x02000001u}, {2 * 24 + 11, 0x02000001u}}));
  EXPECT_EQ(Minutes(3, 5, 10, 2), Cells(60, {{15, 0x01000001u}}));
  // A table that cannot be opened is passed over: the next basket's cell
  // shows. (Not the open basket's: Windows removes no file held open.)
  std::filesystem::remove(Real('d', "MOLRA/FS000002.CTA"));
  std::filesystem::create_directory(Real('d', "MOLRA/FS000002.CTA"));
  EXPECT_EQ(Minutes(3, 5, 10, 2), Cells(60, {{15, 0x02000001u}}));
}

TEST_F(TimelineTest, RecordCutShortCountsAsUnreadableInBothReadModes) {
  Open({{At(3, 5), At(3, 7, 23),
         {Table(3, 5, {{0, 1, 2, 5}}), Table(3, 6, {{1, 3, 4, 6}}), Table(3, 7, {{0, 0, 0, 7}})}}});
  // The third record's date, hour cells and first minute cells remain.
  std::filesystem::resize_file(Real('d', "MOLRA/FS000000.CTA"), 2 * kRecord + 4000);
  const auto expected = std::make_tuple(Marked({5, 6}), Cells(384, {{1, 5}}), Cells(384),
                                        Cells(60, {{4, 6}}), Cells(60));
  for (const bool whole : {false, true}) {
    molra::DayRecordReader::SetWholeRecords(whole);
    EXPECT_EQ(std::make_tuple(Days(3), Hours(3, 5), Hours(3, 7), Minutes(3, 6, 3, 1),
                              Minutes(3, 7, 0, 0)),
              expected)
        << whole;
  }
  molra::DayRecordReader::SetWholeRecords(false);
}

TEST_F(TimelineTest, ShiftsMoveHourColumnsByTheZonesWholeHoursWithinTheirRows) {
  // Row c holds ((c + 1) << 8) + h + 1 at hour h, save at hour 4.
  const Record record = Table(6, 1, {});
  for (int c = 0; c < 16; ++c) {
    for (int h = 0; h < 24; ++h) record->dwHour[c][h] = h == 4 ? 0 : ((c + 1) << 8) + h + 1;
  }
  // The month of the time asked (July lies in daylight time), and n columns
  // from `from` landing at `to`.
  struct Case { LONG bias, daylightBias; int month; bool plus; int side, from, to, n; } cases[] = {
      {-540, 0, 7, false, 1, 0, 9, 15},  {-540, 0, 7, false, -1, 15, 0, 9},
      {300, -60, 7, true, -1, 4, 0, 20}, {300, -60, 7, true, 1, 0, 20, 4},
      {300, -60, 1, true, 1, 0, 19, 5},  {300, -30, 7, true, 1, 0, 19, 5},
      {-330, 0, 7, false, 1, 0, 5, 19},  {0, 0, 7, false, 1, 0, 0, 24},
      {0, 0, 7, true, -1, 0, 0, 24},
      // Less than an hour, in daylight time: -1 hours, so columns at a
      // row's ends must not spill into the next row or out of the output.
      {30, -60, 7, false, 1, 1, 0, 23},  {30, -60, 7, true, -1, 0, 1, 23},
  };
  for (const Case& k : cases) {
    UseZone(k.bias, k.daylightBias);
    CMOLRA store;
    std::vector<DWORD> out(386), expected(386);  // the rows in cells 1 to 384
    for (int c = 0; c < 16; ++c) {
      for (int i = 0; i < k.n; ++i) expected[1 + c * 24 + k.to + i] = record->dwHour[c][k.from + i];
    }
    out[141] = expected[141] = 0xEE;  // row 5, hour 20: a cell already set keeps its value
    (store.*(k.plus ? &CMOLRA::GetSaveHourPlus : &CMOLRA::GetSaveHourMinus))(
        k.side, record.get(), out.data() + 1, CTime(2010, k.month, 15, 12, 0, 0));
    EXPECT_EQ(out, expected) << "case " << &k - cases;
  }
}

TEST_F(TimelineTest, IsEqualDayTakesTheLastHourOfTheAskedLocalMonth) {
  UseZone(-540);
  CMOLRA store;
  // Channel-major order: channel 1 comes last in March, channel 3 in April.
  const Record record = Table(3, 31, {{0, 14, 0, 1}, {0, 20, 0, 1}, {1, 12, 0, 1}, {3, 15, 0, 1}});
  const auto found = [&](WORD month) {
    SYSTEMTIME at{1999, 9, 9, 9, 9, 9, 9, 9};
    const int hit = store.IsEqualDay(record.get(), At(month, 17), at);
    return std::vector<int>{hit, at.wYear, at.wMonth, at.wDay, at.wHour};
  };
  EXPECT_EQ(found(4), (std::vector<int>{1, 2010, 4, 1, 0}));
  EXPECT_EQ(found(3), (std::vector<int>{1, 2010, 3, 31, 21}));
  EXPECT_EQ(found(5), (std::vector<int>{0, 1999, 9, 9, 9}));  // left alone
}

}  // namespace
}  // namespace molra_test
