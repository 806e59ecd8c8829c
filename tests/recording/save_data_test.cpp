// Saving chunks: keys, the data and index files, the ring of baskets and
// the day tables, checked on disk.
#include <filesystem>
#include <initializer_list>

#include "recording/recording_fixture.h"

namespace molra_test {
namespace {

class SaveDataTest : public RecordingTest {
 protected:
  std::string Ring() const {  // "current/oldest" on disk
    const _tagFSHDR head = Get<_tagFSHDR>(Catalogue(), 0);
    return std::to_string(head.dwCurrent) + "/" + std::to_string(head.dwOldest);
  }
  DWORD WritePosOnDisk(int n) const { return Get<DWORD>(ReadAll(Path(n, ".CDT"), 16), 8); }
};

// Equal milliseconds count up across channels and seconds; from the 100th
// repeat on only two digits reach the key, so it is refused unless appended.
// A refused chunk writes nothing and takes no number.
TEST_F(SaveDataTest, KeysCountRepeatsOfTheMillisecondThatRefusedChunksDoNotTake) {
  EXPECT_EQ(Save(0, On(18, 9, 30)), FS_ERR_MODE);  // never opened
  ASSERT_NO_FATAL_FAILURE(Make(1));
  ASSERT_EQ(Save(15, On(1, 0, 0, 0, 998)), FS_OK);  // milliseconds no other save has
  ASSERT_EQ(Save(0, On(18, 9, 30, 10, 500)), FS_OK);
  const std::vector<Bytes> before = Files(0);
  const struct { signed char channel; WORD month, day, hour, minute; DWORD length; } rows[] = {
      {-1, 11, 18, 9, 30, 8}, {16, 11, 18, 9, 30, 8}, {0, 0, 18, 9, 30, 8},  {0, 13, 18, 9, 30, 8},
      {0, 11, 0, 9, 30, 8},   {0, 11, 32, 9, 30, 8},  {0, 11, 18, 24, 30, 8}, {0, 11, 18, 9, 60, 8},
      {0, 11, 18, 9, 30, molra::kMaxChunkLength + 1}};
  DWORD remaining = 12345;
  for (const auto& r : rows) {
    EXPECT_EQ(Save(r.channel, {2010, r.month, 0, r.day, r.hour, r.minute, 11, 500}, 0x00010000,
                   r.length, &remaining),
              FS_ERR_PARAM)
        << +r.channel << " " << r.month << "-" << r.day << " " << r.hour << ":" << r.minute;
  }
  EXPECT_EQ(remaining, 12345u);
  EXPECT_TRUE(Files(0) == before);
  const struct { int channel; WORD second, ms; } saves[] = {
      {3, 11, 500}, {0, 12, 500}, {0, 13, 7}, {1, 14, 500}};
  for (const auto& s : saves) ASSERT_EQ(Save(s.channel, On(18, 9, 30, s.second, s.ms)), FS_OK);
  std::vector<std::string> entries;
  for (const auto& [key, ref] : Index(0)) entries.push_back(key + " " + std::to_string(ref.cChannel));
  EXPECT_EQ(std::vector<std::string>(entries.begin() + 1, entries.end()),
            (std::vector<std::string>{"20101118093010050000 0", "20101118093011050001 3",
                                      "20101118093012050002 0", "20101118093013000700 0",
                                      "20101118093014050000 1"}));
  for (int i = 0; i < 100; ++i) ASSERT_EQ(Save(2, On(18, 9, 30, 15, 321)), FS_OK) << i;
  const DWORD end = rec.m_DataHdr.dwWritePos;
  EXPECT_EQ(Save(2, On(18, 9, 30, 15, 321)), FS_ERR_MODE);
  EXPECT_EQ(WritePosOnDisk(0), end);
  EXPECT_EQ(Save(2, On(18, 9, 30, 15, 321), 0x80000000), FS_OK);  // the top bit appends, unseen
  const auto keys = Keys(0);
  ASSERT_EQ(keys.size(), 107u);
  EXPECT_EQ(keys[105], "20101118093015032199");
  EXPECT_EQ(keys[106], "20101118093015032110");
  rec.CloseFS();
  EXPECT_EQ(Save(0, On(18, 9, 30)), FS_ERR_FILE);
  ASSERT_EQ(rec.OpenFS(1), FS_OK);
  EXPECT_EQ(Save(0, On(18, 9, 30)), FS_ERR_MODE);
}

// stFirst and stLast follow stamps to the millisecond; bit 0 of dwFlags
// marks a channel's new hour (a minute does not count).
TEST_F(SaveDataTest, TheRecordFollowsFirstLastAndNewHours) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  for (const WORD ms : {500, 499, 501, 450}) ASSERT_EQ(Save(0, On(18, 9, 30, 15, ms)), FS_OK);
  ASSERT_EQ(Save(0, On(18, 9, 30, 15, 400), 0x80000000), FS_OK);  // appended, yet earliest
  EXPECT_EQ(RecordOnDisk(0).stFirst.wMilliseconds, 400);
  EXPECT_EQ(RecordOnDisk(0).stLast.wMilliseconds, 501);
  const struct { int channel; SYSTEMTIME t; DWORD flag; } steps[] = {
      {0, On(18, 9, 59, 0, 2), 0}, {0, On(18, 10, 0, 0, 3), 1}, {0, On(18, 10, 5, 0, 4), 0},
      {1, On(18, 10, 6, 0, 5), 1}, {1, On(18, 10, 7, 0, 6), 0}, {0, On(19, 10, 0, 0, 7), 1},
      {0, On(18, 10, 8, 0, 8), 1}};  // back to a day already in the table
  for (const auto& step : steps) {
    rec.Basket(0)->dwFlags = 0;
    ASSERT_EQ(Save(step.channel, step.t), FS_OK);
    EXPECT_EQ(RecordOnDisk(0).dwFlags, step.flag) << step.t.wDay << " " << step.t.wHour << ":"
                                                  << step.t.wMinute;
  }
}

// Where the last chunk ended, how long the next is, how many the basket
// holds, and whether the next goes to basket 1.
struct Edge { DWORD writePos, length, chunks; bool rolls; };
class SaveDataRollover : public SaveDataTest, public ::testing::WithParamInterface<Edge> {};

// The sum is dwLength + dwWritePos + 4; a chunk goes in while 64 MiB minus
// the sum stays above 1,067,008, and while the basket holds at most 70,000.
// A write position no intact basket has (past the end of the file, at its
// very top, before the first chunk) leaves the basket: the sum never wraps
// and no data file grows.
TEST_P(SaveDataRollover, StartsTheNextBasketAtTheMarginTheChunkLimitOrDamage) {
  const Edge& edge = GetParam();
  ASSERT_NO_FATAL_FAILURE(Make(2));
  ASSERT_EQ(Save(0, On(18, 9, 0)), FS_OK);
  rec.m_DataHdr.dwWritePos = edge.writePos;
  rec.Basket(0)->dwChunks = edge.chunks;
  for (DWORD& flag : rec.m_bIFrame) flag = 0;
  DWORD remaining = 0;
  ASSERT_EQ(Save(0, On(18, 9, 1), 0x01000000, edge.length, &remaining), FS_OK);
  const int basket = edge.rolls ? 1 : 0;
  const DWORD at = edge.rolls ? 16 : edge.writePos, end = at + 30 + edge.length;
  EXPECT_EQ(Ring(), edge.rolls ? "1/0" : "0/0");
  EXPECT_EQ(remaining, 67108864u - end);
  EXPECT_EQ(WritePosOnDisk(basket), end);
  ASSERT_FALSE(Index(basket).empty());
  EXPECT_EQ(+Index(basket).back().second.dwOffset, at);
  for (int channel = 0; channel < 16; ++channel) EXPECT_EQ(rec.GetIFrame(channel), basket);
  for (int n = 0; n < 2; ++n) EXPECT_EQ(FileSize(Path(n, ".CDT")), 67108864LL) << n;
  if (edge.rolls) {  // the new basket starts at this chunk alone
    const _tagFSBSKINFO record = RecordOnDisk(1);
    EXPECT_EQ(record.dwFlags, 1u);  // by the new day record: the hour is the same
    EXPECT_EQ(record.stFirst.wMinute + record.stLast.wMinute, 2);
    EXPECT_EQ(rec.Basket(0)->dwChunks, edge.chunks);  // the old basket keeps its count
  }
}
constexpr DWORD kMax = molra::kMaxChunkLength;
INSTANTIATE_TEST_SUITE_P(
    , SaveDataRollover,
    ::testing::Values(Edge{66041841, 10, 1, false}, Edge{66041842, 10, 1, true},
                      Edge{16, 10, 70000, false}, Edge{16, 10, 70001, true},
                      Edge{67000000, kMax, 1, true}, Edge{0xFFFFFFF0, kMax, 1, true},
                      Edge{8, kMax, 1, true}));

// Before: baskets, current, oldest, broken ones; after: result, ring, baskets left, log line.
struct Broken { LONG baskets; DWORD current, oldest; std::vector<int> broken;
                LONG result; const char* ring; std::vector<int> left; const char* log; };
class SaveDataRing : public SaveDataTest, public ::testing::WithParamInterface<Broken> {};

// A rollover into a full ring pushes the oldest on. A basket whose files do
// not open is taken out of the catalogue (not deleted), and the one behind
// it is tried, four attempts in all; the only basket stays.
TEST_P(SaveDataRing, ARolloverPushesTheOldestOnAndTakesOutABasketThatDoesNotOpen) {
  const Broken& b = GetParam();
  ASSERT_NO_FATAL_FAILURE(Make(b.baskets));
  for (const int n : b.broken) {  // a directory where the index should be fails every open
#ifdef _WIN32
    if (n == 0) GTEST_SKIP() << "Windows deletes no file that is open, as basket 0 is";
#endif
    std::filesystem::remove(Path(n, ".CIN"));
    std::filesystem::create_directory(Path(n, ".CIN"));
  }
  rec.m_FsHdr.dwCurrent = b.current;
  rec.m_FsHdr.dwOldest = b.oldest;
  Fill();
  EXPECT_EQ(Save(0, On(18, 9, 0)), b.result);
  std::vector<std::string> paths, left;
  for (DWORD n = 0; n < Get<_tagFSHDR>(Catalogue(), 0).dwBaskets; ++n)
    paths.emplace_back(RecordOnDisk(n).szPath);
  for (const int n : b.left) left.push_back(Name(n));
  EXPECT_EQ(paths, left);
  EXPECT_EQ(Ring(), b.ring);
  EXPECT_NE(Log().find(b.log), std::string::npos);
  for (const int n : b.broken) EXPECT_TRUE(FileExists(Path(n, ".CDT"))) << n;
  EXPECT_EQ(Keys(b.left[rec.m_FsHdr.dwCurrent]).size(), b.result == FS_OK ? 1u : 0u);
}
INSTANTIATE_TEST_SUITE_P(
    , SaveDataRing,
    ::testing::Values(
        Broken{3, 0, 0, {}, FS_OK, "1/0", {0, 1, 2}, ""},
        Broken{3, 2, 0, {}, FS_OK, "0/1", {0, 1, 2}, ""},
        Broken{3, 0, 1, {}, FS_OK, "1/2", {0, 1, 2}, ""},
        Broken{3, 0, 2, {1}, FS_OK, "1/0", {0, 2}, "File System - 1 Basket : D:\\MOLRA\\FS000002"},
        Broken{3, 1, 0, {2}, FS_OK, "0/1", {0, 1}, "File System - 0 Basket : D:\\MOLRA\\FS000000"},
        Broken{2, 0, 0, {1}, FS_OK, "0/0", {0}, "File System - 0 Basket : D:\\MOLRA\\FS000000"},
        Broken{5, 0, 0, {1, 2, 3, 4}, FS_ERR_INDEX, "1/0", {0, 4},
               "File System - 1 Basket : D:\\MOLRA\\FS000004"},
        Broken{1, 0, 0, {0}, FS_ERR_INDEX, "0/0", {0}, "only basket kept : D:\\MOLRA\\FS000000"}));

// Day records as whole-record reads and rewrites would leave them: record
// k dated 2010-11-day, with a minute cell and its hour cell (0: untouched).
struct Cell { size_t k; DWORD day; int channel, hour, minute; DWORD minuteCell, hourCell; };
Bytes Tables(size_t records, std::initializer_list<Cell> cells) {
  std::vector<_tagFSBSKTBL> t(records);
  for (const Cell& c : cells) {
    t[c.k].dwYear = 2010, t[c.k].dwMonth = 11, t[c.k].dwDay = c.day;
    t[c.k].dwMinute[c.channel][c.hour][c.minute] = c.minuteCell;
    if (c.hourCell != 0) t[c.k].dwHour[c.channel][c.hour] = c.hourCell;
  }
  return Bytes(reinterpret_cast<const char*>(t.data()), t.size() * kDay);
}

// A one-basket ring then overwrites it all: day records left from the last
// cycle are ignored, yet nothing is cut from its files.
TEST_F(SaveDataTest, DayTablesMergeEventBitsAppendDaysInArrivalOrderAndForgetTheLastCycle) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  const struct { int channel; SYSTEMTIME t; DWORD info; } saves[] = {
      {2, On(18, 9, 30, 0, 1), 0x81000010},   {2, On(18, 9, 30, 0, 2), 0x03000020},
      {2, On(18, 9, 30, 0, 3), 0x04000030},   {2, On(18, 9, 31, 0, 4), 0x80000040},
      {5, On(18, 9, 30, 0, 5), 0x00010000},   {5, On(18, 9, 32, 0, 6), 0x00000000},
      {5, On(18, 9, 32, 0, 7), 0x02000000},   {0, On(19, 0, 0, 0, 8), 0x10000001},
      {15, On(18, 23, 59, 0, 9), 0x20000002}, {1, On(17, 12, 0, 0, 10), 0x40000003},
      {3, On(20, 1, 1, 0, 11), 0x01000000},   {3, On(21, 1, 1, 0, 12), 0x01000000}};
  for (const auto& s : saves) ASSERT_EQ(Save(s.channel, s.t, s.info), FS_OK);
  // Five days: the fifth lies behind the file as made.
  EXPECT_TRUE(ReadAll(Path(0, ".CTA")) ==
              Tables(5, {{0, 18, 2, 9, 30, 0x85000010, 0x85000010},
                         {0, 18, 2, 9, 31, 0x80000040, 0},
                         {0, 18, 5, 9, 30, 0x00010000, 0x02010000},
                         {0, 18, 5, 9, 32, 0x02000000, 0},
                         {0, 18, 15, 23, 59, 0x20000002, 0x20000002},
                         {1, 19, 0, 0, 0, 0x10000001, 0x10000001},
                         {2, 17, 1, 12, 0, 0x40000003, 0x40000003},
                         {3, 20, 3, 1, 1, 0x01000000, 0x01000000},
                         {4, 21, 3, 1, 1, 0x01000000, 0x01000000}}));
  EXPECT_EQ(RecordOnDisk(0).dwDays, 5u);

  const Bytes data = ReadAll(Path(0, ".CDT"), 16 + 12 * 38), table = ReadAll(Path(0, ".CTA"));
  Fill();
  ASSERT_EQ(Save(1, On(18, 8, 0, 0, 13), 0x02000003), FS_OK);
  ASSERT_EQ(Save(1, On(19, 8, 0, 0, 14), 0x02000004), FS_OK);  // a stale day 19 lies at 1
  EXPECT_EQ(Keys(0), (std::vector<std::string>{"20101118080000001300", "20101119080000001400"}));
  EXPECT_EQ(RecordOnDisk(0).dwChunks, 2u);
  EXPECT_EQ(RecordOnDisk(0).dwDays, 2u);
  EXPECT_TRUE(ReadAll(Path(0, ".CDT"), data.size()).substr(92) == data.substr(92));
  EXPECT_TRUE(ReadAll(Path(0, ".CTA")) == Tables(2, {{0, 18, 1, 8, 0, 0x02000003, 0x02000003},
                                                      {1, 19, 1, 8, 0, 0x02000004, 0x02000004}}) +
                                               table.substr(2 * kDay));
}

}  // namespace
}  // namespace molra_test
