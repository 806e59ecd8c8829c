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

namespace molra_test {
namespace {

class Recorder : public StoreProbe {
 public:
  using CMOLRA::EraseErrorBasket, CMOLRA::m_bFull, CMOLRA::m_DataHdr, CMOLRA::m_FsHdr;
};

SYSTEMTIME At(WORD day, WORD hour, WORD minute, WORD second = 0, WORD ms = 0) {
  return SYSTEMTIME{2010, 11, 0, day, hour, minute, second, ms};
}

_tagCHUNKHDR Chunk(int channel, const SYSTEMTIME& t, DWORD info = 0x00010000, DWORD length = 8) {
  _tagCHUNKHDR c{0xA5, t, {'h', 'o', 's', 't'}, static_cast<signed char>(channel), info, length};
  return c;
}

template <typename T>
T Get(const Bytes& bytes, size_t offset) {
  T value{};
  if (offset < bytes.size()) {
    std::memcpy(&value, bytes.data() + offset, std::min(sizeof value, bytes.size() - offset));
  }
  return value;
}

Bytes Raw(const void* p, size_t n) { return Bytes(static_cast<const char*>(p), n); }

std::vector<std::string> Baskets(const std::vector<int>& numbers) {
  std::vector<std::string> paths;
  for (const int n : numbers) paths.push_back("D:\\MOLRA\\FS00000" + std::to_string(n));
  return paths;
}

class SaveDataTest : public StoreTest {
 protected:
  void Make(LONG baskets) {
    store.CallLoadFSinfo();
    _tagBSKLOC loc{3, baskets};
    ASSERT_EQ(store.CreateFS(&loc, 1), FS_OK);
    ASSERT_EQ(store.OpenFS(0), FS_OK);
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
  // Milliseconds that no test uses, so that the test's sequence starts at 0.
  void Prime() { ASSERT_EQ(Save(15, At(1, 0, 0, 0, 998)), FS_OK); }

  std::string Path(int n, const char* ext) const {
    return Real('d', "MOLRA/FS00000" + std::to_string(n) + ext);
  }
  // A directory where the index should be fails every open, even root's.
  void Break(int n) const {
    std::filesystem::remove(Path(n, ".CIN"));
    std::filesystem::create_directory(Path(n, ".CIN"));
  }
  std::vector<std::pair<std::string, _tagIDXREF>> Index(int n) const {
    std::vector<std::pair<std::string, _tagIDXREF>> entries;
    CFsIndex index;
    if (!index.Open(Baskets({n})[0].append(".CIN").c_str(), 2, 0)) return entries;
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
  std::vector<std::string> PathsOnDisk() const {
    std::vector<std::string> paths;
    for (DWORD n = 0; n < HeadOnDisk().dwBaskets; ++n) paths.emplace_back(RecordOnDisk(n).szPath);
    return paths;
  }
  DWORD WritePosOnDisk(int n) const { return Get<DWORD>(ReadAll(Path(n, ".CDT"), 16), 8); }
  std::vector<Bytes> Files() const {  // all of basket 0 but the sparse tail of its data
    return {Catalogue(), ReadAll(Path(0, ".CDT"), 4096), ReadAll(Path(0, ".CIN")),
            ReadAll(Path(0, ".CTA"))};
  }

  Recorder store;
};

TEST_F(SaveDataTest, ModeComesBeforeOpenAndOpenBeforeTheChunk) {
  EXPECT_EQ(store.SaveData(nullptr, nullptr, nullptr, 0), FS_ERR_MODE);  // never opened
  ASSERT_NO_FATAL_FAILURE(Make(1));
  store.CloseFS();
  _tagCHUNKHDR chunk = Chunk(0, At(18, 9, 30));
  EXPECT_EQ(store.SaveData(&chunk, nullptr, nullptr, 0), FS_ERR_FILE);
  EXPECT_EQ(store.SaveData(nullptr, nullptr, nullptr, 0), FS_ERR_FILE);
  ASSERT_EQ(store.OpenFS(1), FS_OK);
  EXPECT_EQ(store.SaveData(nullptr, nullptr, nullptr, 0), FS_ERR_MODE);
}

struct BadChunk {
  const char* name;
  signed char channel;
  WORD month, day, hour, minute;
  bool noChunk, noPayload;
};

class SaveDataBadInput : public SaveDataTest, public ::testing::WithParamInterface<BadChunk> {};

TEST_P(SaveDataBadInput, IsRefusedBeforeAnythingIsWrittenOrCounted) {
  const BadChunk& p = GetParam();
  ASSERT_NO_FATAL_FAILURE(Make(1));
  ASSERT_NO_FATAL_FAILURE(Prime());
  ASSERT_EQ(Save(Chunk(0, At(18, 9, 30, 15, 250))), FS_OK);
  const std::vector<Bytes> before = Files();
  _tagCHUNKHDR bad =
      Chunk(p.channel, SYSTEMTIME{2010, p.month, 0, p.day, p.hour, p.minute, 15, 250});
  BYTE payload[8] = {};
  DWORD remaining = 12345;
  EXPECT_EQ(
      store.SaveData(p.noChunk ? nullptr : &bad, p.noPayload ? nullptr : payload, &remaining, 0),
      FS_ERR_PARAM);
  EXPECT_EQ(remaining, 12345u);
  EXPECT_TRUE(Files() == before);
  // The refused chunk took no sequence number.
  ASSERT_EQ(Save(Chunk(1, At(18, 9, 30, 16, 250))), FS_OK);
  EXPECT_EQ(Keys(0).back(), "20101118093016025001");
}

INSTANTIATE_TEST_SUITE_P(
    , SaveDataBadInput,
    ::testing::Values(BadChunk{"ChannelBelow", -1, 11, 18, 9, 30, false, false},
                      BadChunk{"ChannelAbove", 16, 11, 18, 9, 30, false, false},
                      BadChunk{"MonthZero", 0, 0, 18, 9, 30, false, false},
                      BadChunk{"Month13", 0, 13, 18, 9, 30, false, false},
                      BadChunk{"DayZero", 0, 11, 0, 9, 30, false, false},
                      BadChunk{"Day32", 0, 11, 32, 9, 30, false, false},
                      BadChunk{"Hour24", 0, 11, 18, 24, 30, false, false},
                      BadChunk{"Minute60", 0, 11, 18, 9, 60, false, false},
                      BadChunk{"NoChunk", 0, 11, 18, 9, 30, true, false},
                      BadChunk{"NoPayload", 0, 11, 18, 9, 30, false, true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(SaveDataTest, ChunkLandsInDataIndexAndCatalogue) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  ASSERT_NO_FATAL_FAILURE(Prime());
  _tagCHUNKHDR chunk = Chunk(7, At(18, 9, 30, 15, 250), 0x81010203, 100);
  DWORD remaining = 0;
  ASSERT_EQ(Save(chunk, &remaining), FS_OK);
  const DWORD at = 16 + 30 + 8;  // behind the primer
  EXPECT_EQ(remaining, 67108864u - (at + 130));
  EXPECT_EQ(WritePosOnDisk(0), at + 130);
  const Bytes data = ReadAll(Path(0, ".CDT"), at + 130);
  EXPECT_EQ(data.substr(at, 30), Raw(&chunk, 30));
  EXPECT_EQ(data.substr(at + 30), Bytes(100, 'h'));
  const auto index = Index(0);
  ASSERT_EQ(index.size(), 2u);
  EXPECT_EQ(index[1].first, "20101118093015025000");
  EXPECT_EQ(index[1].second.cChannel, 7);
  EXPECT_EQ(+index[1].second.dwInfo, 0x81010203u);
  EXPECT_EQ(+index[1].second.dwOffset, at);
  const _tagFSBSKINFO record = RecordOnDisk(0);
  EXPECT_EQ(record.dwChunks, 2u);
  EXPECT_EQ(record.dwDays, 2u);  // the primer's day and this one
}

TEST_F(SaveDataTest, EqualMillisecondsCountUpAcrossChannelsAndSeconds) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  ASSERT_NO_FATAL_FAILURE(Prime());
  const struct {
    int channel;
    WORD second, ms;
  } saves[] = {{0, 10, 500}, {3, 11, 500}, {0, 12, 500}, {0, 13, 7}, {1, 14, 500}};
  for (const auto& s : saves) ASSERT_EQ(Save(s.channel, At(18, 9, 30, s.second, s.ms)), FS_OK);
  const std::vector<std::string> keys = Keys(0);
  EXPECT_EQ(std::vector<std::string>(keys.begin() + 1, keys.end()),
            (std::vector<std::string>{"20101118093010050000", "20101118093011050001",
                                      "20101118093012050002", "20101118093013000700",
                                      "20101118093014050000"}));
}

// From the 100th repeat on, only two digits of the sequence reach the key.
TEST_F(SaveDataTest, HundredthRepeatOfAStampIsRefusedUnlessAppended) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  ASSERT_NO_FATAL_FAILURE(Prime());
  for (int i = 0; i < 100; ++i) ASSERT_EQ(Save(2, At(18, 9, 30, 15, 321)), FS_OK) << i;
  const DWORD end = store.m_DataHdr.dwWritePos;
  const Bytes catalogue = Catalogue();
  DWORD remaining = 777;
  EXPECT_EQ(Save(Chunk(2, At(18, 9, 30, 15, 321)), &remaining), FS_ERR_MODE);
  EXPECT_EQ(remaining, 777u);
  EXPECT_EQ(WritePosOnDisk(0), end);
  EXPECT_EQ(Catalogue(), catalogue);
  EXPECT_EQ(ReadAll(Path(0, ".CDT"), end + 1).substr(end), "\xA5");  // written, then lost
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
  EXPECT_EQ(Keys(0).size(), 5u);
}

// Bit 0 of dwFlags marks a channel's new hour; a minute does not count.
TEST_F(SaveDataTest, NewHourOfAChannelSetsTheFlag) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  ASSERT_EQ(Save(0, At(18, 9, 30, 0, 1)), FS_OK);
  const struct {
    int channel;
    SYSTEMTIME t;
    DWORD flag;
  } steps[] = {{0, At(18, 9, 59, 0, 2), 0}, {0, At(18, 10, 0, 0, 3), 1},
               {0, At(18, 10, 5, 0, 4), 0}, {1, At(18, 10, 6, 0, 5), 1},
               {1, At(18, 10, 7, 0, 6), 0}, {0, At(19, 10, 0, 0, 7), 1}};
  for (const auto& step : steps) {
    store.Basket(0)->dwFlags = 0;
    ASSERT_EQ(Save(step.channel, step.t), FS_OK);
    EXPECT_EQ(RecordOnDisk(0).dwFlags, step.flag) << step.t.wHour << ":" << step.t.wMinute;
  }
}

struct Edge {
  DWORD writePos, chunks;
  bool rolls;
};

class SaveDataRollover : public SaveDataTest, public ::testing::WithParamInterface<Edge> {};

TEST_P(SaveDataRollover, StartsTheNextBasketAtTheMarginOrTheChunkLimit) {
  ASSERT_NO_FATAL_FAILURE(Make(2));
  ASSERT_EQ(Save(0, At(18, 9, 0)), FS_OK);
  store.m_DataHdr.dwWritePos = GetParam().writePos;
  store.Basket(0)->dwChunks = GetParam().chunks;
  for (DWORD& flag : store.m_bIFrame) flag = 0;
  DWORD remaining = 0;
  ASSERT_EQ(Save(Chunk(0, At(18, 9, 1), 0x01000000, 10), &remaining), FS_OK);
  const int basket = GetParam().rolls ? 1 : 0;
  const DWORD at = GetParam().rolls ? 16 : GetParam().writePos;
  EXPECT_EQ(HeadOnDisk().dwCurrent, static_cast<DWORD>(basket));
  EXPECT_EQ(remaining, 67108864u - (at + 40));
  EXPECT_EQ(WritePosOnDisk(basket), at + 40);
  const auto index = Index(basket);
  ASSERT_FALSE(index.empty());
  EXPECT_EQ(+index.back().second.dwOffset, at);
  for (int channel = 0; channel < 16; ++channel) EXPECT_EQ(store.GetIFrame(channel), basket);
  if (GetParam().rolls) {
    const _tagFSBSKINFO record = RecordOnDisk(1);
    EXPECT_EQ(record.dwChunks, 1u);
    EXPECT_EQ(record.dwDays, 1u);
    EXPECT_EQ(record.dwFlags, 1u);  // by the new day record: the hour is the same
    EXPECT_EQ(record.stFirst.wMinute + record.stLast.wMinute, 2);
    EXPECT_EQ(store.Basket(0)->dwChunks, GetParam().chunks);
  }
}

// The test's sum is dwLength + dwWritePos + 4; a chunk goes in while
// 64 MiB minus the sum stays above 1,067,008.
INSTANTIATE_TEST_SUITE_P(, SaveDataRollover,
                         ::testing::Values(Edge{66041841, 1, false}, Edge{66041842, 1, true},
                                           Edge{16, 70000, false}, Edge{16, 70001, true}));

TEST_F(SaveDataTest, ChunkTooBigForTheRestWrapsTheTestAndGrowsTheFile) {
  ASSERT_NO_FATAL_FAILURE(Make(2));
  store.m_DataHdr.dwWritePos = 66000000;
  DWORD remaining = 0;
  ASSERT_EQ(Save(Chunk(0, At(18, 9, 0), 0, 1200000), &remaining), FS_OK);
  EXPECT_EQ(FileSize(Path(0, ".CDT")), 67200030);  // no rollover
  EXPECT_EQ(remaining, static_cast<DWORD>(67108864u - 67200030u));
  EXPECT_EQ(store.m_bFull, 1u);
  EXPECT_EQ(store.GetIFrame(15), 1);
}

TEST_F(SaveDataTest, RingPushesTheOldestOnceFull) {
  ASSERT_NO_FATAL_FAILURE(Make(3));
  const DWORD expected[][2] = {{1, 0}, {2, 0}, {0, 1}, {1, 2}};
  WORD minute = 0;
  for (const auto& ring : expected) {
    store.Basket(store.m_FsHdr.dwCurrent)->dwChunks = 70001;
    ASSERT_EQ(Save(0, At(18, 9, minute++)), FS_OK);
    EXPECT_EQ(HeadOnDisk().dwCurrent, ring[0]);
    EXPECT_EQ(HeadOnDisk().dwOldest, ring[1]);
  }
  const std::vector<std::string> keys = Keys(1);  // the second cycle's chunk alone
  ASSERT_EQ(keys.size(), 1u);
  EXPECT_EQ(keys[0].substr(0, 12), "201011180903");
}

struct Broken {
  LONG baskets;
  DWORD current, oldest;
  std::vector<int> broken;
  LONG result;
  DWORD leftCurrent, leftOldest;
  std::vector<int> left;
  const char* log;
};

class SaveDataBrokenBasket : public SaveDataTest, public ::testing::WithParamInterface<Broken> {};

// A basket whose files do not open is taken out of the catalogue, and the
// one behind it is tried, four attempts in all; the only basket stays.
TEST_P(SaveDataBrokenBasket, RolloverErasesItAndTriesTheNext) {
  const Broken& b = GetParam();
  ASSERT_NO_FATAL_FAILURE(Make(b.baskets));
  for (const int n : b.broken) Break(n);
  store.m_FsHdr.dwCurrent = b.current;
  store.m_FsHdr.dwOldest = b.oldest;
  store.Basket(b.current)->dwChunks = 70001;
  EXPECT_EQ(Save(0, At(18, 9, 0)), b.result);
  EXPECT_EQ(PathsOnDisk(), Baskets(b.left));
  EXPECT_EQ(HeadOnDisk().dwCurrent, b.leftCurrent);
  EXPECT_EQ(HeadOnDisk().dwOldest, b.leftOldest);
  EXPECT_NE(ReadAll(Real('c', "FSDIR/status.dat")).find(b.log), std::string::npos);
  EXPECT_TRUE(FileExists(Path(b.broken[0], ".CDT")));  // out of the catalogue, not deleted
  if (b.result == FS_OK) {
    EXPECT_EQ(Keys(b.left[b.leftCurrent]).size(), 1u);
  }
}

INSTANTIATE_TEST_SUITE_P(
    , SaveDataBrokenBasket,
    ::testing::Values(
        Broken{3, 0, 2, {1}, FS_OK, 1, 0, {0, 2}, "File System - 1 Basket : D:\\MOLRA\\FS000002"},
        Broken{3, 1, 0, {2}, FS_OK, 0, 1, {0, 1}, "File System - 0 Basket : D:\\MOLRA\\FS000000"},
        Broken{2, 0, 0, {1}, FS_OK, 0, 0, {0}, "File System - 0 Basket : D:\\MOLRA\\FS000000"},
        Broken{5, 0, 0, {1, 2, 3, 4}, FS_ERR_INDEX, 1, 0, {0, 4}, "1 Basket : D:\\MOLRA\\FS000004"},
        Broken{1, 0, 0, {0}, FS_ERR_INDEX, 0, 0, {0}, "only basket kept : D:\\MOLRA\\FS000000"}));

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
  const struct {
    int channel;
    SYSTEMTIME t;
    DWORD info;
  } saves[] = {{2, At(18, 9, 30, 0, 1), 0x81000010},   {2, At(18, 9, 30, 0, 2), 0x03000020},
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
  store.Basket(0)->dwChunks = 70001;
  ASSERT_EQ(Save(1, At(18, 8, 0, 0, 3), 0x02000003), FS_OK);
  ASSERT_EQ(Save(1, At(19, 8, 0, 0, 4), 0x02000004), FS_OK);  // a stale day 19 lies at 1
  EXPECT_EQ(HeadOnDisk().dwCurrent, 0u);
  EXPECT_EQ(HeadOnDisk().dwOldest, 0u);
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
