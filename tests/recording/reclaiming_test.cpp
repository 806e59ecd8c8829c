// Reclaiming: ageing the oldest basket, taking baskets out of the
// catalogue and blanking old baskets' day tables, checked on disk.
#include <array>

#include "platform/fault_injection.h"
#include "recording/recording_fixture.h"

namespace molra_test {
namespace {

const auto kNamed = [](const auto& info) { return std::string(info.param.name); };

// A chunk on 2010-11-day; day 0 sends the next chunk to the next basket. Its
// ms 0: one of the test's own, so that the keys' sequence stays 0.
struct Chunk { WORD day, hour = 1, ms = 0; int channel = 0; WORD weekday = 0; };

class ReclaimTest : public RecordingTest {
 protected:
  // `baskets` on drive D:, recorded into by `rec`.
  void Make(LONG baskets, const std::vector<Chunk>& chunks) {
    ASSERT_NO_FATAL_FAILURE(RecordingTest::Make(baskets));
    for (const Chunk& c : chunks) ASSERT_NO_FATAL_FAILURE(Save(c));
  }
  void Save(const Chunk& c) {
    if (c.day == 0) return Fill();
    const SYSTEMTIME t{2010, 11, c.weekday, c.day, c.hour, 0, 0, c.ms ? c.ms : ++m_ms};
    ASSERT_EQ(RecordingTest::Save(c.channel, t, 0x00010000, 4), FS_OK);
  }
  // Ages with an object of its own, as the host's housekeeping would.
  int Age(unsigned days, _tagFSBSKINFO* info = nullptr, DWORD oldest = 0) {
    StoreProbe ager;
    ager.CallLoadFSinfo();
    if (oldest != 0) ager.GetFSInfo()->dwOldest = oldest;
    _tagFSBSKINFO scratch;
    return ager.GetOldestBasketInfoAndBasketControl(days, info ? info : &scratch);
  }

  WORD m_ms = 0;
};

struct AgeCase {
  const char* name;
  std::vector<Chunk> chunks;  // into three baskets
  unsigned retention;
  int result;
  char effect;        // 'k' kept, 'e' erased, 'c' cut
  DWORD oldest = 0;   // the basket aged
  char holder = 0;    // of basket 0: 'r' the recorder, 'p' a player
  DWORD days = 0;     // the basket's dwDays as damage left it; 0: as recorded
  bool cuts = false;  // then a power cut at each write in turn, and a second call
};
class ReclaimAge : public ReclaimTest, public ::testing::WithParamInterface<AgeCase> {};

// Today is the 18th. A power cut at any write leaves a store that opens,
// and the next call finishes the job.
TEST_P(ReclaimAge, ErasesCutsOrKeepsTheOldestBasketAndACutCallFinishesNextTime) {
  const AgeCase& p = GetParam();
  const int b = static_cast<int>(p.oldest), next = p.effect == 'e' ? (b + 1) % 3 : b;
  ASSERT_NO_FATAL_FAILURE(Make(3, p.chunks));
  StoreProbe player;
  if (p.holder != 'r') rec.CloseFS();
  ASSERT_TRUE(p.holder != 'p' || player.OpenFS(1) == FS_OK);
  if (p.days != 0) {
    Bytes cat = Catalogue();
    Put<DWORD>(&cat, kHead + b * kRec + kDaysAt, p.days);
    WriteCatalogue(cat);
  }
  const std::vector<Bytes> before = Files(b);
  std::vector<Bytes> want = before;
  _tagFSBSKINFO info{};
  EXPECT_EQ(Age(p.retention, &info, p.oldest), p.result);
  EXPECT_EQ(std::string(info.szPath), Name(next));
  const bool shared = Log().find("BasketControl:Basket Erase -0 Error Code:32 ") != Bytes::npos;
  EXPECT_EQ(shared, p.holder != 0);  // 32: a sharing violation
  EXPECT_TRUE(p.effect != 'c' || Age(p.retention) == 0);  // nothing more to cut
  if (p.effect == 'e') {  // its span, days, chunks and flags go, the index's head, the table
    Put<DWORD>(&want[0], 16, next);  // dwOldest
    want[0].replace(kHead + b * kRec + kFirstAt, 32, 32, '\0');
    want[0].replace(kHead + b * kRec + kDaysAt, 12, 12, '\0');
    want[1].replace(0, 28, Bytes("YK\0\1", 4) + Bytes(24, '\0'));
    want[2] = Bytes(want[2].size(), '\0');
  }
  EXPECT_TRUE(p.effect == 'c' || Files(b) == want);
  const std::vector<Bytes> done = Files(b);
  for (DWORD n = 1; p.cuts; ++n) {
    SCOPED_TRACE(n);
    WriteCatalogue(before[0]);
    std::ofstream(Path(b, ".CIN"), std::ios::binary) << before[1];
    std::ofstream(Path(b, ".CTA"), std::ios::binary) << before[2];
    bool cut = false;
    {
      molra::platform::ScopedFaultInjection faults;
      faults->CutPowerAtWrite(n);
      Age(p.retention);
      cut = faults->PowerCut();
    }
    for (const int mode : {0, 1}) EXPECT_EQ(StoreProbe().OpenFS(mode), FS_OK) << mode;
    // Done already also when only the last write was lost.
    EXPECT_EQ(Age(p.retention), Files(b) == done ? 0 : 1);
    EXPECT_TRUE(Files(b) == done);
    if (!cut) break;
  }
}

const AgeCase kAgeCases[] = {
    {"DaysZeroTakesABasketEndingToday", {{15}, {16}, {17}, {18}, {0}, {19}}, 0, 1, 'e'},
    {"AllOnTheCutOffDayIsWhole", {{15}, {15, 2}, {0}, {19}}, 3, 1, 'e', 0, 0, 0, true},
    {"StartingOnTheCutOffDayIsCut", {{15}, {16}, {0}, {19}}, 3, 1, 'c', 0, 0, 0, true},
    {"CutOffBeforeTheStartKeepsAll", {{15}, {16}, {0}, {19}}, 4, 0, 'k'},
    {"DaysBeyondTheTableFailTheCut", {{15}, {16}, {0}, {19}}, 3, 1, 'k', 0, 0, 0xFFFFFFFF},
    {"NeverUsedLastBasketGoesAndWraps", {{15}, {0}, {19}}, 1000, 1, 'e', 2},
    // A cut-off is a date from year 1 on (734,092 days back is 0001-01-02);
    // a retention reaching further keeps everything.
    {"CutOffInYearOneStillAges", {{15}, {0}, {19}}, 734092, 1, 'e', 2},
    {"CutOffBeforeYearOneKeepsAll", {{15}, {0}, {19}}, 734093, 0, 'k', 2},
    {"RetentionOf800000DaysKeepsAll", {{15}, {16}, {0}, {19}}, 800000, 0, 'k'},
    {"LargestRetentionKeepsAll", {{15}, {16}, {0}, {19}}, 0xFFFFFFFF, 0, 'k'},
    // Erasing shares the files with writers only.
    {"OpenForTheRecorderStays", {{14}, {15}}, 0, 1, 'k', 0, 'r'},
    {"OpenForPlaybackStays", {{14}, {15}}, 0, 1, 'k', 0, 'p'},
};
INSTANTIATE_TEST_SUITE_P(Reclaim, ReclaimAge, ::testing::ValuesIn(kAgeCases), kNamed);

// The cut goes through under the recorder, whose next saves keep its own view.
TEST_F(ReclaimTest, CutMovesTheKeptDaysUpAndStartsTheIndexAtTheFirstKeptNode) {
  ASSERT_NO_FATAL_FAILURE(
      Make(1, {{14, 1, 0, 0, 3}, {15}, {16, 7, 777, 1, 5}, {16, 9, 13}, {17, 2, 14}}));
  const Bytes table = ReadAll(Path(0, ".CTA")), record = Rec(0);
  ASSERT_EQ(Age(3), 1);  // cut-off the 15th
  EXPECT_TRUE(ReadAll(Path(0, ".CTA")) == table.substr(2 * kDay, 2 * kDay) + Bytes(2 * kDay, 0));
  const auto indexHead = [&] {  // dwFirst, dwCount
    const auto h = Get<_tagIDXHDR>(ReadAll(Path(0, ".CIN"), 28), 0);
    return std::array<DWORD, 2>{h.dwFirst, h.dwCount};
  };
  EXPECT_EQ(indexHead(), (std::array<DWORD, 2>{28 + 2 * 41, 3}));

  EXPECT_EQ(Keys(0), (std::vector<std::string>{"20101116070000077700", "20101116090000001300",
                                               "20101117020000001400"}));
  CFsIndex index;
  char key[20];
  ASSERT_TRUE(index.Open((Name(0) + ".CIN").c_str(), 2, 0) && index.First(key, nullptr));
  EXPECT_FALSE(index.Prev(key, nullptr));  // though the 14th's nodes are still in the file
  _tagIDXNODE node;
  DWORD found = 0;
  EXPECT_FALSE(index.PrevNode(&node, 28 + 2 * 41, &found));  // a walk stops there too

  // stFirst from the key, with its milliseconds and the old weekday; dwChunks the index's count.
  Bytes expected = record;
  Put(&expected, kFirstAt, SYSTEMTIME{2010, 11, 3, 16, 7, 0, 0, 777});
  Put(&expected, kDaysAt, std::array<DWORD, 2>{2, 3});
  EXPECT_TRUE(Rec(0) == expected);

  ASSERT_NO_FATAL_FAILURE(Save({17, 5, 0, 2}));  // its own header goes over the repaired one
  EXPECT_EQ(indexHead(), (std::array<DWORD, 2>{28, 6}));
  ASSERT_NO_FATAL_FAILURE(Save({18}));  // a new day goes behind its old count of days
  const Bytes after = ReadAll(Path(0, ".CTA"));
  EXPECT_EQ(Get<DWORD>(after, kDay + 12 + (2 * 24 + 5) * 4), 0x00010000u);  // in the kept 17th
  EXPECT_TRUE(after.substr(2 * kDay, 2 * kDay) == Bytes(2 * kDay, '\0'));
  EXPECT_EQ(Get<DWORD>(after, 4 * kDay + 8), 18u);
  EXPECT_EQ(Get<DWORD>(Rec(0), kDaysAt), 5u);
}

struct DelCase {
  const char* name;
  DWORD held, count, current, oldest;  // records in the file; the head's fields
  LONG number, result;
  std::array<DWORD, 3> head;  // count, current, oldest afterwards
  std::vector<int> left;      // the baskets listed afterwards, in order
  std::array<DWORD, 2> loaded = {};  // current, oldest as a load places them
};
class ReclaimDelete : public ReclaimTest, public ::testing::WithParamInterface<DelCase> {};

TEST_P(ReclaimDelete, TakesBasketsOutOfTheCatalogueFileAndDeletesTheirFiles) {
  const DelCase& p = GetParam();
  _tagBSKLOC loc{3, 3};
  ASSERT_EQ(rec.CreateFS(&loc, 1), FS_OK);
  Bytes old = Catalogue().substr(0, kHead + p.held * kRec).replace(20, 12, 12, 'Z');
  Put(&old, 8, std::array<DWORD, 3>{p.count, p.current, p.oldest});
  WriteCatalogue(old);
  EXPECT_EQ(rec.DeleteBakset(p.number), p.result);
  Bytes want = old;
  if (p.result == FS_OK) {
    want = old.substr(0, kHead);  // magic, version and reserved bytes stay
    Put(&want, 8, p.head);
    for (const int n : p.left) want += old.substr(kHead + n * kRec, kRec);
    want += old.substr(want.size());  // old records stay behind the list
  }
  EXPECT_TRUE(Catalogue() == want);
  if (p.result == FS_OK) {
    StoreProbe reader;
    reader.CallLoadFSinfo();
    EXPECT_EQ((std::array<DWORD, 2>{reader.GetFSInfo()->dwCurrent, reader.GetFSInfo()->dwOldest}),
              p.loaded);
  }
  for (int n = 0; n < 3; ++n) {
    const bool stays = p.result != FS_OK || n >= static_cast<int>(p.held) ||
                       std::count(p.left.begin(), p.left.end(), n) > 0;
    for (const char* ext : {".CIN", ".CDT", ".CTA"})
      EXPECT_EQ(FileExists(Path(n, ext)), stays) << n << ext;
  }
}

const DelCase kDelCases[] = {
    {"AllHeld", 2, 3, 1, 1, -1, FS_OK, {0, 0, 0}, {}},
    {"LastWithTheCurrentOnIt", 3, 3, 2, 0, 2, FS_OK, {2, 1, 0}, {0, 1}, {1, 0}},
    // The oldest position stays, past the list: a load takes the basket
    // behind the current one.
    {"FirstOfThree", 3, 3, 1, 2, 0, FS_OK, {2, 1, 2}, {1, 2}, {1, 0}},
    {"OldestAtTheEnd", 3, 3, 1, 2, 2, FS_OK, {2, 1, 2}, {0, 1}, {1, 0}},
    // A current position past the records: the newest basket (all are
    // empty here, so the first).
    {"FirstOfTheHeldCurrentPastThem", 2, 3, 2, 0, 0, FS_OK, {1, 2, 0}, {1}, {0, 0}},
    {"TheOnlyOne", 1, 1, 0, 0, 0, FS_OK, {0, 0, 0}, {}},
    {"Negative", 3, 3, 1, 1, -2, FS_ERR_PARAM, {}, {}},
    {"PastTheHeld", 2, 3, 1, 1, 2, FS_ERR_PARAM, {}, {}},
    {"NoneListedLeftAlone", 0, 0, 0, 0, 0, FS_OK, {0, 0, 0}, {}},
};
INSTANTIATE_TEST_SUITE_P(Reclaim, ReclaimDelete, ::testing::ValuesIn(kDelCases), kNamed);

struct BlankCase {
  const char* name;
  DWORD current, oldest;
  const char *date, *limit;
  std::vector<int> blanked;
  // 'z' basket 0's stFirst zeroed, 'd' its dwDays beyond the table, 'c' the
  // store closed, 'p' open for playback.
  char twist = 0;
  LONG result = FS_OK;
};
class ReclaimBlank : public ReclaimTest, public ::testing::WithParamInterface<BlankCase> {};

TEST_P(ReclaimBlank, ZeroesTheTablesAndSpansOfBasketsOlderThanTheLimit) {
  const BlankCase& p = GetParam();
  // The baskets start on the 10th (two days), 12th and 14th.
  ASSERT_NO_FATAL_FAILURE(Make(3, {{10}, {11}, {0}, {12}, {0}, {14}}));
  Bytes cat = Catalogue();
  Put(&cat, 12, std::array<DWORD, 2>{p.current, p.oldest});
  if (p.twist == 'z') cat.replace(kHead + kFirstAt, 16, 16, '\0');
  if (p.twist == 'd') Put<DWORD>(&cat, kHead + kDaysAt, 9);
  WriteCatalogue(cat);
  if (p.twist == 'c' || p.twist == 'p') rec.CloseFS();
  ASSERT_TRUE(p.twist != 'p' || rec.OpenFS(1) == FS_OK);
  std::vector<Bytes> want[] = {Files(0), Files(1), Files(2)};
  EXPECT_EQ(rec.DelTBLSaveDataInfo(p.date, p.limit), p.result);
  for (const int n : p.blanked) {  // the table as far as it goes, the span, days and chunks
    const size_t days = Get<DWORD>(want[0][0], kHead + n * kRec + kDaysAt);
    const size_t zeros = std::min(want[n][2].size(), days * kDay);
    want[n][2].replace(0, zeros, zeros, '\0');
    for (auto& files : want) {
      files[0].replace(kHead + n * kRec + kFirstAt, 32, 32, '\0');
      files[0].replace(kHead + n * kRec + kDaysAt, 8, 8, '\0');
    }
  }
  for (int n = 0; n < 3; ++n) EXPECT_TRUE(Files(n) == want[n]) << n;  // the flags and index stay
}

const BlankCase kBlankCases[] = {
    {"UnwrappedFromZeroUpToTheCurrent", 2, 1, "20101118", "3", {0, 1}},
    {"AtTheLimitStays", 2, 0, "20101118", "8", {}},
    {"ADayPastTheLimitGoes", 2, 0, "20101118", "7", {0}},
    {"WrappedAllFromTheOldest", 0, 1, "20101118", "3", {0, 1, 2}},
    {"EmptyRingNone", 1, 1, "20101118", "0", {}},
    {"StartAfterTheDateStays", 2, 0, "20101111", "0", {0}},
    {"StartOnTheDateStays", 2, 0, "20101110", "-1", {}},
    {"AllZeroStartStays", 2, 0, "20101118", "0", {1}, 'z'},
    {"ZerosOnlyWhereTheTableIs", 2, 0, "20101118", "3", {0, 1}, 'd'},
    {"NotOpen", 2, 0, "20101118", "3", {}, 'c', FS_ERR_FILE},
    {"PlayingBack", 2, 0, "20101118", "3", {}, 'p', FS_ERR_MODE},
};
INSTANTIATE_TEST_SUITE_P(Reclaim, ReclaimBlank, ::testing::ValuesIn(kBlankCases), kNamed);

}  // namespace
}  // namespace molra_test
