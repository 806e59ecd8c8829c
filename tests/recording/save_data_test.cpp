// Saving chunks: keys, the data and index files, the ring of baskets and
// the day tables, checked on disk.
#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "index/fs_index.h"
#include "store/store_probe.h"

using molra::detail::CFsIndex;

namespace molra_test {
namespace {

class Recorder : public StoreProbe {
 public:
  using CMOLRA::m_bFull, CMOLRA::m_DataHdr, CMOLRA::m_FsHdr;
};

SYSTEMTIME At(WORD day, WORD hour, WORD minute, WORD second = 0, WORD ms = 0) {
  return SYSTEMTIME{2010, 11, 0, day, hour, minute, second, ms};
}

_tagCHUNKHDR Chunk(int channel, const SYSTEMTIME& t, DWORD info = 0x00010000, DWORD length = 8) {
  return {0xA5, t, {'h', 'o', 's', 't'}, static_cast<signed char>(channel), info, length};
}

template <typename T>
T Get(const Bytes& bytes, size_t at) {
  T value{};
  if (at < bytes.size()) std::memcpy(&value, &bytes[at], std::min(sizeof value, bytes.size() - at));
  return value;
}

Bytes Raw(const void* p, size_t n) { return Bytes(static_cast<const char*>(p), n); }

std::string BasketPath(int n) { return "D:\\MOLRA\\FS00000" + std::to_string(n); }

class SaveDataTest : public StoreTest {
 protected:
  // A new store of `baskets` on D, open to record; primed: with a first
  // chunk of milliseconds no test uses, so that the test's sequence starts at 0.
  void Make(LONG baskets, bool primed = false) {
    store.CallLoadFSinfo();
    _tagBSKLOC loc{3, baskets};
    ASSERT_EQ(store.CreateFS(&loc, 1), FS_OK);
    ASSERT_EQ(store.OpenFS(0), FS_OK);
    if (primed) {
      ASSERT_EQ(Save(15, At(1, 0, 0, 0, 998)), FS_OK);
    }
  }
  void TearDown() override {
    store.CloseFS();
    StoreTest::TearDown();
  }
  LONG Save(_tagCHUNKHDR c, DWORD* remaining = nullptr) {
    std::vector<BYTE> payload(c.dwLength, static_cast<BYTE>('a' + c.chChannel));
    DWORD ignored = 0;
    return store.SaveData(&c, payload.data(), remaining ? remaining : &ignored, 0);
  }
  LONG Save(int channel, const SYSTEMTIME& t, DWORD info = 0x00010000) {
    return Save(Chunk(channel, t, info));
  }
  // A full basket, so that the next save rolls over.
  void Fill() { store.Basket(store.m_FsHdr.dwCurrent)->dwChunks = 70001; }

  std::string Path(int n, const char* ext) const {
    return Real('d', "MOLRA/FS00000" + std::to_string(n) + ext);
  }
  std::vector<std::pair<std::string, _tagIDXREF>> Index(int n) const {
    std::vector<std::pair<std::string, _tagIDXREF>> entries;
    CFsIndex index;
    if (!index.Open((BasketPath(n) + ".CIN").c_str(), 2, 0)) return entries;
    char key[20];
    _tagIDXREF ref{};
    for (int ok = index.First(key, &ref); ok; ok = index.Next(key, &ref)) {
      entries.emplace_back(std::string(key, 20), ref);
    }
    return entries;
  }
  std::vector<std::string> Keys(int n) const {
    std::vector<std::string> keys;
    for (const auto& entry : Index(n)) keys.push_back(entry.first);
    return keys;
  }
  _tagFSHDR HeadOnDisk() const { return Get<_tagFSHDR>(Catalogue(), 0); }
  _tagFSBSKINFO RecordOnDisk(DWORD n) const {
    return Get<_tagFSBSKINFO>(Catalogue(), sizeof(_tagFSHDR) + n * sizeof(_tagFSBSKINFO));
  }
  // "current/oldest" as the catalogue on disk has them.
  std::string RingOnDisk() const {
    const _tagFSHDR head = HeadOnDisk();
    return std::to_string(head.dwCurrent) + "/" + std::to_string(head.dwOldest);
  }
  DWORD WritePosOnDisk(int n) const { return Get<DWORD>(ReadAll(Path(n, ".CDT"), 16), 8); }

  Recorder store;
};

TEST_F(SaveDataTest, ModeComesBeforeOpenAndOpenBeforeTheChunk) {
  EXPECT_EQ(store.SaveData(nullptr, nullptr, nullptr, 0), FS_ERR_MODE);  // never opened
  ASSERT_NO_FATAL_FAILURE(Make(1));
  store.CloseFS();
  _tagCHUNKHDR chunk = Chunk(0, At(18, 9, 30));
  EXPECT_EQ(store.SaveData(&chunk, nullptr, nullptr, 0), FS_ERR_FILE);
  ASSERT_EQ(store.OpenFS(1), FS_OK);
  EXPECT_EQ(store.SaveData(nullptr, nullptr, nullptr, 0), FS_ERR_MODE);
}

TEST_F(SaveDataTest, BadInputIsRefusedBeforeAnythingIsWrittenOrCounted) {
  ASSERT_NO_FATAL_FAILURE(Make(1, true));
  ASSERT_EQ(Save(Chunk(0, At(18, 9, 30, 15, 250))), FS_OK);
  // All of basket 0 but the sparse tail of its data.
  const auto files = [&] {
    return std::vector<Bytes>{Catalogue(), ReadAll(Path(0, ".CDT"), 4096), ReadAll(Path(0, ".CIN")),
                              ReadAll(Path(0, ".CTA"))};
  };
  const std::vector<Bytes> before = files();
  const struct { signed char channel; WORD month, day, hour, minute; } rows[] = {
      {-1, 11, 18, 9, 30}, {16, 11, 18, 9, 30}, {0, 0, 18, 9, 30},  {0, 13, 18, 9, 30},
      {0, 11, 0, 9, 30},   {0, 11, 32, 9, 30},  {0, 11, 18, 24, 30}, {0, 11, 18, 9, 60}};
  BYTE payload[8] = {};
  DWORD remaining = 12345;
  for (const auto& r : rows) {
    _tagCHUNKHDR bad = Chunk(r.channel, {2010, r.month, 0, r.day, r.hour, r.minute, 15, 250});
    EXPECT_EQ(store.SaveData(&bad, payload, &remaining, 0), FS_ERR_PARAM)
        << +r.channel << " " << r.month << "-" << r.day << " " << r.hour << ":" << r.minute;
  }
  _tagCHUNKHDR good = Chunk(0, At(18, 9, 30, 15, 250));
  EXPECT_EQ(store.SaveData(nullptr, payload, &remaining, 0), FS_ERR_PARAM);
  EXPECT_EQ(store.SaveData(&good, nullptr, &remaining, 0), FS_ERR_PARAM);
  _tagCHUNKHDR unreadable = Chunk(0, At(18, 9, 30, 15, 250), 0, molra::kMaxChunkLength + 1);
  EXPECT_EQ(store.SaveData(&unreadable, payload, &remaining, 0), FS_ERR_PARAM);
  EXPECT_EQ(remaining, 12345u);
  EXPECT_TRUE(files() == before);
  // No refused chunk took a sequence number.
  ASSERT_EQ(Save(Chunk(1, At(18, 9, 30, 16, 250))), FS_OK);
  EXPECT_EQ(Keys(0).back(), "20101118093016025001");
}

TEST_F(SaveDataTest, EqualMillisecondsCountUpAcrossChannelsAndSeconds) {
  ASSERT_NO_FATAL_FAILURE(Make(1, true));
  const struct { int channel; WORD second, ms; } saves[] = {
      {0, 10, 500}, {3, 11, 500}, {0, 12, 500}, {0, 13, 7}, {1, 14, 500}};
  for (const auto& s : saves) ASSERT_EQ(Save(s.channel, At(18, 9, 30, s.second, s.ms)), FS_OK);
  std::vector<std::string> entries;  // key and channel, behind the primer's
  for (const auto& [key, ref] : Index(0)) {
    entries.push_back(key + " " + std::to_string(ref.cChannel));
  }
  EXPECT_EQ(std::vector<std::string>(entries.begin() + 1, entries.end()),
            (std::vector<std::string>{"20101118093010050000 0", "20101118093011050001 3",
                                      "20101118093012050002 0", "20101118093013000700 0",
                                      "20101118093014050000 1"}));
}

// From the 100th repeat on, only two digits of the sequence reach the key.
TEST_F(SaveDataTest, HundredthRepeatOfAStampIsRefusedUnlessAppended) {
  ASSERT_NO_FATAL_FAILURE(Make(1, true));
  for (int i = 0; i < 100; ++i) ASSERT_EQ(Save(2, At(18, 9, 30, 15, 321)), FS_OK) << i;
  const DWORD end = store.m_DataHdr.dwWritePos;
  EXPECT_EQ(Save(2, At(18, 9, 30, 15, 321)), FS_ERR_MODE);
  EXPECT_EQ(WritePosOnDisk(0), end);
  // The top bit of dwInfo links the chunk behind the last one, unseen.
  EXPECT_EQ(Save(2, At(18, 9, 30, 15, 321), 0x80000000), FS_OK);
  const auto keys = Keys(0);
  ASSERT_EQ(keys.size(), 102u);
  EXPECT_EQ(keys[100], "20101118093015032199");
  EXPECT_EQ(keys[101], "20101118093015032110");
}

TEST_F(SaveDataTest, FirstAndLastFollowStampsToTheMillisecond) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  for (const WORD ms : {500, 499, 501, 450}) ASSERT_EQ(Save(0, At(18, 9, 30, 15, ms)), FS_OK);
  ASSERT_EQ(Save(0, At(18, 9, 30, 15, 400), 0x80000000), FS_OK);  // appended, yet earliest
  EXPECT_EQ(RecordOnDisk(0).stFirst.wMilliseconds, 400);
  EXPECT_EQ(RecordOnDisk(0).stLast.wMilliseconds, 501);
}

// Bit 0 of dwFlags marks a channel's new hour; a minute does not count.
TEST_F(SaveDataTest, NewHourOfAChannelSetsTheFlag) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  ASSERT_EQ(Save(0, At(18, 9, 30, 0, 1)), FS_OK);
  const struct { int channel; SYSTEMTIME t; DWORD flag; } steps[] = {
      {0, At(18, 9, 59, 0, 2), 0}, {0, At(18, 10, 0, 0, 3), 1}, {0, At(18, 10, 5, 0, 4), 0},
      {1, At(18, 10, 6, 0, 5), 1}, {1, At(18, 10, 7, 0, 6), 0}, {0, At(19, 10, 0, 0, 7), 1},
      {0, At(18, 10, 8, 0, 8), 1}};  // back to a day already in the table
  for (const auto& step : steps) {
    store.Basket(0)->dwFlags = 0;
    ASSERT_EQ(Save(step.channel, step.t), FS_OK);
    EXPECT_EQ(RecordOnDisk(0).dwFlags, step.flag) << step.t.wDay << " " << step.t.wHour << ":"
                                                   << step.t.wMinute;
  }
}

struct Edge { DWORD sum, chunks; bool rolls; };  // the test's sum for a chunk of 10 bytes

class SaveDataRollover : public SaveDataTest, public ::testing::WithParamInterface<Edge> {};

// The sum is dwLength + dwWritePos + 4; a chunk goes in while 64 MiB minus
// the sum stays above 1,067,008, and while the basket holds at most 70,000.
TEST_P(SaveDataRollover, StartsTheNextBasketAtTheMarginOrTheChunkLimit) {
  const Edge& edge = GetParam();
  ASSERT_NO_FATAL_FAILURE(Make(2));
  ASSERT_EQ(Save(0, At(18, 9, 0)), FS_OK);
  store.m_DataHdr.dwWritePos = edge.sum - 10 - 4;
  store.Basket(0)->dwChunks = edge.chunks;
  for (DWORD& flag : store.m_bIFrame) flag = 0;
  DWORD remaining = 0;
  ASSERT_EQ(Save(Chunk(0, At(18, 9, 1), 0x01000000, 10), &remaining), FS_OK);
  const int basket = edge.rolls ? 1 : 0;
  const DWORD at = edge.rolls ? 16 : edge.sum - 14;
  EXPECT_EQ(HeadOnDisk().dwCurrent, static_cast<DWORD>(basket));
  EXPECT_EQ(remaining, 67108864u - (at + 40));
  EXPECT_EQ(WritePosOnDisk(basket), at + 40);
  ASSERT_FALSE(Index(basket).empty());
  EXPECT_EQ(+Index(basket).back().second.dwOffset, at);
  for (int channel = 0; channel < 16; ++channel) EXPECT_EQ(store.GetIFrame(channel), basket);
  if (edge.rolls) {  // the new basket starts at this chunk alone
    const _tagFSBSKINFO record = RecordOnDisk(1);
    EXPECT_EQ(record.dwFlags, 1u);  // by the new day record: the hour is the same
    EXPECT_EQ(record.stFirst.wMinute + record.stLast.wMinute, 2);
    EXPECT_EQ(store.Basket(0)->dwChunks, edge.chunks);  // the old basket keeps its count
  }
}

INSTANTIATE_TEST_SUITE_P(, SaveDataRollover,
                         ::testing::Values(Edge{66041855, 1, false}, Edge{66041856, 1, true},
                                           Edge{30, 70000, false}, Edge{30, 70001, true}));

// A write position no intact basket has (past the end of the file, at its
// very top, before the first chunk) leaves the basket: the sum never wraps
// and no data file grows.
TEST_F(SaveDataTest, AWritePositionOutsideTheFileRollsOver) {
  ASSERT_NO_FATAL_FAILURE(Make(2));
  WORD ms = 0;
  for (const DWORD at : {67000000u, 0xFFFFFFF0u, 8u}) {
    store.m_DataHdr.dwWritePos = at;
    const DWORD basket = store.m_FsHdr.dwCurrent;
    ASSERT_EQ(Save(Chunk(0, At(18, 9, 0, 0, ms++), 0, molra::kMaxChunkLength)), FS_OK) << at;
    EXPECT_NE(store.m_FsHdr.dwCurrent, basket) << at;
    const int now = static_cast<int>(store.m_FsHdr.dwCurrent);
    EXPECT_EQ(WritePosOnDisk(now), 16 + 30 + molra::kMaxChunkLength) << at;
  }
  EXPECT_EQ(FileSize(Path(0, ".CDT")) + FileSize(Path(1, ".CDT")), 2 * 67108864LL);
}

TEST_F(SaveDataTest, RingPushesTheOldestOnceFull) {
  ASSERT_NO_FATAL_FAILURE(Make(3));
  WORD minute = 0;
  for (const char* ring : {"1/0", "2/0", "0/1", "1/2"}) {
    Fill();
    ASSERT_EQ(Save(0, At(18, 9, minute++)), FS_OK);
    EXPECT_EQ(RingOnDisk(), ring);
  }
  const std::vector<std::string> keys = Keys(1);  // the second cycle's chunk alone
  ASSERT_EQ(keys.size(), 1u);
  EXPECT_EQ(keys[0].substr(0, 12), "201011180903");
}

// Before: baskets, current, oldest, broken ones; after: result, ring, baskets left, log line.
struct Broken { LONG baskets; DWORD current, oldest; std::vector<int> broken;
                LONG result; const char* ring; std::vector<int> left; const char* log; };

class SaveDataBrokenBasket : public SaveDataTest, public ::testing::WithParamInterface<Broken> {};

// A basket whose files do not open is taken out of the catalogue, and the
// one behind it is tried, four attempts in all; the only basket stays.
TEST_P(SaveDataBrokenBasket, RolloverErasesItAndTriesTheNext) {
  const Broken& b = GetParam();
  ASSERT_NO_FATAL_FAILURE(Make(b.baskets));
  for (const int n : b.broken) {  // a directory where the index should be fails every open
#ifdef _WIN32
    if (n == 0) GTEST_SKIP() << "Windows deletes no file that is open, as basket 0 is";
#endif
    std::filesystem::remove(Path(n, ".CIN"));
    std::filesystem::create_directory(Path(n, ".CIN"));
  }
  store.m_FsHdr.dwCurrent = b.current;
  store.m_FsHdr.dwOldest = b.oldest;
  Fill();
  EXPECT_EQ(Save(0, At(18, 9, 0)), b.result);
  std::vector<std::string> paths, left;
  for (DWORD n = 0; n < HeadOnDisk().dwBaskets; ++n) paths.emplace_back(RecordOnDisk(n).szPath);
  for (const int n : b.left) left.push_back(BasketPath(n));
  EXPECT_EQ(paths, left);
  EXPECT_EQ(RingOnDisk(), b.ring);
  EXPECT_NE(ReadAll(Real('c', "FSDIR/status.dat")).find(b.log), std::string::npos);
  EXPECT_TRUE(FileExists(Path(b.broken[0], ".CDT")));  // out of the catalogue, not deleted
  if (b.result == FS_OK) {
    EXPECT_EQ(Keys(b.left[HeadOnDisk().dwCurrent]).size(), 1u);
  }
}

INSTANTIATE_TEST_SUITE_P(
    , SaveDataBrokenBasket,
    ::testing::Values(
        Broken{3, 0, 2, {1}, FS_OK, "1/0", {0, 2}, "File System - 1 Basket : D:\\MOLRA\\FS000002"},
        Broken{3, 1, 0, {2}, FS_OK, "0/1", {0, 1}, "File System - 0 Basket : D:\\MOLRA\\FS000000"},
        Broken{2, 0, 0, {1}, FS_OK, "0/0", {0}, "File System - 0 Basket : D:\\MOLRA\\FS000000"},
        Broken{5, 0, 0, {1, 2, 3, 4}, FS_ERR_INDEX, "1/0", {0, 4},
               "File System - 1 Basket : D:\\MOLRA\\FS000004"},
        Broken{1, 0, 0, {0}, FS_ERR_INDEX, "0/0", {0}, "only basket kept : D:\\MOLRA\\FS000000"}));

// Day records as whole-record reads and rewrites would leave them.
using Table = std::vector<_tagFSBSKTBL>;
_tagFSBSKTBL& Day(Table& table, size_t k, DWORD day) {
  if (table.size() <= k) table.resize(k + 1, _tagFSBSKTBL{});
  std::memcpy(&table[k], std::array<DWORD, 3>{2010, 11, day}.data(), 12);
  return table[k];
}
Bytes Raw(const Table& table) { return Raw(table.data(), table.size() * sizeof table[0]); }

TEST_F(SaveDataTest, DayTablesMergeEventBitsAndAppendDaysInArrivalOrder) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  const struct { int channel; SYSTEMTIME t; DWORD info; } saves[] = {
      {2, At(18, 9, 30, 0, 1), 0x81000010},   {2, At(18, 9, 30, 0, 2), 0x03000020},
      {2, At(18, 9, 30, 0, 3), 0x04000030},   {2, At(18, 9, 31, 0, 4), 0x80000040},
      {5, At(18, 9, 30, 0, 5), 0x00010000},   {5, At(18, 9, 32, 0, 6), 0x00000000},
      {5, At(18, 9, 32, 0, 7), 0x02000000},   {0, At(19, 0, 0, 0, 8), 0x10000001},
      {15, At(18, 23, 59, 0, 9), 0x20000002}, {1, At(17, 12, 0, 0, 10), 0x40000003},
      {3, At(20, 1, 1, 0, 11), 0x01000000},   {3, At(21, 1, 1, 0, 12), 0x01000000}};
  for (const auto& s : saves) ASSERT_EQ(Save(s.channel, s.t, s.info), FS_OK);

  Table expected;
  _tagFSBSKTBL& d18 = Day(expected, 0, 18);
  d18.dwHour[2][9] = d18.dwMinute[2][9][30] = 0x85000010;
  d18.dwMinute[2][9][31] = 0x80000040;
  d18.dwHour[5][9] = 0x02010000;
  d18.dwMinute[5][9][30] = 0x00010000;
  d18.dwMinute[5][9][32] = 0x02000000;
  d18.dwHour[15][23] = d18.dwMinute[15][23][59] = 0x20000002;
  _tagFSBSKTBL& d19 = Day(expected, 1, 19);
  d19.dwHour[0][0] = d19.dwMinute[0][0][0] = 0x10000001;
  _tagFSBSKTBL& d17 = Day(expected, 2, 17);
  d17.dwHour[1][12] = d17.dwMinute[1][12][0] = 0x40000003;
  for (const DWORD day : {20u, 21u}) {
    _tagFSBSKTBL& d = Day(expected, day - 17, day);
    d.dwHour[3][1] = d.dwMinute[3][1][1] = 0x01000000;
  }
  // Five days: the fifth lies behind the file as made.
  EXPECT_TRUE(ReadAll(Path(0, ".CTA")) == Raw(expected));
  EXPECT_EQ(RecordOnDisk(0).dwDays, 5u);
}

TEST_F(SaveDataTest, OneBasketRingOverwritesItselfAndIgnoresStaleDays) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  ASSERT_EQ(Save(0, At(17, 9, 0, 0, 1), 0x01000001), FS_OK);
  ASSERT_EQ(Save(Chunk(0, At(19, 9, 0, 0, 2), 0x01000002, 50)), FS_OK);
  Fill();
  ASSERT_EQ(Save(1, At(18, 8, 0, 0, 3), 0x02000003), FS_OK);
  ASSERT_EQ(Save(1, At(19, 8, 0, 0, 4), 0x02000004), FS_OK);  // a stale day 19 lies at 1
  EXPECT_EQ(Keys(0), (std::vector<std::string>{"20101118080000000300", "20101119080000000400"}));
  EXPECT_EQ(RecordOnDisk(0).dwChunks, 2u);
  EXPECT_EQ(RecordOnDisk(0).dwDays, 2u);
  // Nothing is cut: the old second chunk's payload outlasts the new end.
  EXPECT_EQ(ReadAll(Path(0, ".CDT"), 134).substr(92), Bytes(42, 'a'));

  Table expected;
  _tagFSBSKTBL& d18 = Day(expected, 0, 18);
  d18.dwHour[1][8] = d18.dwMinute[1][8][0] = 0x02000003;
  _tagFSBSKTBL& d19 = Day(expected, 1, 19);
  d19.dwHour[1][8] = d19.dwMinute[1][8][0] = 0x02000004;
  expected.resize(4, _tagFSBSKTBL{});
  EXPECT_TRUE(ReadAll(Path(0, ".CTA")) == Raw(expected));
}

}  // namespace
}  // namespace molra_test
