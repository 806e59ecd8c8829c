// A basket that damage has reached: a recording open sets it right with
// one line in the status log and records on; a reader reads what it can
// and writes nothing; an intact basket is only read.
#include <filesystem>

#include "index/index_format.h"
#include "platform/fault_injection.h"
#include "recording/recording_fixture.h"

namespace molra_test {
namespace {

constexpr DWORD kStride = sizeof(_tagCHUNKHDR) + 8;
// Chunk i: channel i mod 16, one a second from 10:00:00 on.
SYSTEMTIME Time(int i) { return At(10, static_cast<WORD>(i / 60), static_cast<WORD>(i % 60)); }

class RecoveryTest : public DamageTest {
 protected:
  std::string Index(int basket = 0) const {
    return Real('d', "MOLRA/FS00000" + std::to_string(basket) + ".CIN");
  }
  void SaveAll(CMOLRA& store, int from, int to) {
    for (int i = from; i < to; ++i) ASSERT_EQ(SaveWith(store, i % 16, Time(i)), FS_OK) << i;
  }
  std::string Seen(int i) { return DamageTest::Seen(i % 16, Time(i)); }
};

using Path = const std::string&;
struct Harm {
  const char* name;
  int saved, survive;  // chunks recorded before the damage; the first ones it leaves
  void (*harm)(Path index, Path data);
  const char* logged;  // in the one line of the status log
};

const Harm kHarms[] = {
    {"lost right link", 10, 10, [](Path index, Path) { Poke(index, NodeAt(4) + 8, Word(0)); },
     "FS000000.CIN at 192 : lost links restored: 1"},
    {"zeroed header", 10, 10, [](Path index, Path) { Poke(index, 0, Bytes(28, '\0')); },
     "FS000000.CIN at 0 : header rebuilt from its nodes, 10 kept"},
    {"torn header", 10, 10, [](Path index, Path) { Poke(index, 0, "\x13\x07torn wri"); },
     "FS000000.CIN at 0 : header rebuilt from its nodes, 10 kept"},
    {"zeroed 4 KiB page in the tail of the index", 130, 130,
     [](Path index, Path) { Poke(index, 4096, Bytes(4096, '\0')); },
     "FS000000.CIN at 4087 : chunks entered again from the data file: 31"},
    {"index cut in its nodes", 10, 10,
     [](Path index, Path) { std::filesystem::resize_file(index, NodeAt(6) + 20); },
     "FS000000.CIN at 274 : chunks entered again from the data file: 4"},
    {"index cut in its header", 10, 10,
     [](Path index, Path) { std::filesystem::resize_file(index, 20); },
     "FS000000.CIN at 28 : chunks entered again from the data file: 10"},
    {"index cut in its header, then freshened by a reader", 10, 10,
     [](Path index, Path) {
       std::filesystem::resize_file(index, 20);
       ASSERT_EQ(Player().OpenFS(1), FS_OK);
     },
     "FS000000.CIN at 28 : chunks entered again from the data file: 10"},
    {"write position 0xFFFFFFFF", 10, 10, [](Path, Path data) { Poke(data, 8, Word(~0u)); },
     "FS000000.CDT at 8 : write position 4294967295 set to 396"},
    {"write position 16", 10, 10, [](Path, Path data) { Poke(data, 8, Word(16)); },
     "FS000000.CDT at 8 : write position 16 set to 396"},
    {"write position beyond the file", 10, 10,
     [](Path, Path data) { Poke(data, 8, Word(67108864 + 256)); },
     "FS000000.CDT at 8 : write position 67109120 set to 396"},
    {"a node of the last cycle left in slot 5, its link lost", 10, 10,
     [](Path index, Path data) {
       // That cycle's chunk lies further on, where this one has not come.
       Poke(data, ChunkAt(40), Raw(_tagCHUNKHDR{1, At(9, 0, 5), {}, 5, 0x10000, 8}));
       _tagIDXNODE node{NodeAt(4), 0, NodeAt(6), {5, 0x10000, ChunkAt(40)}, {}};
       std::memcpy(node.cKey, molra::MakeKey(2010, 11, 18, 9, 0, 5, 0, 0).text, 20);
       Poke(index, NodeAt(5), Raw(node));
       Poke(index, NodeAt(4) + 8, Word(0));
     },
     "FS000000.CIN at 233 : chunks entered again from the data file: 5"},
    {"a right link torn, the write position ahead of the chunks", 10, 10,
     [](Path index, Path data) {
       Poke(index, NodeAt(8) + 11, "\x01");
       Poke(data, 8, Word(ChunkAt(12)));
     },
     "FS000000.CIN at 356 : lost links restored: 1"},
    {"a stamp torn in a chunk whose node damage took", 10, 6,
     [](Path index, Path data) {
       std::filesystem::resize_file(index, NodeAt(6) + 20);
       Poke(data, ChunkAt(8) + 2, "\x8F");
     },
     "FS000000.CDT at 8 : write position 396 set to 244"},
    {"last three chunks never written", 10, 7,
     [](Path, Path data) { Poke(data, ChunkAt(7), Bytes(3 * kStride, '\0')); },
     "FS000000.CIN at 315 : nodes dropped, their chunks are not in the data file: 3"},
};

TEST_F(RecoveryTest, ARecordingOpenRepairsDamageWithOneLineAndRecordsOn) {
  for (const Harm& d : kHarms) {
    SCOPED_TRACE(d.name);
    Fresh();
    ASSERT_NO_FATAL_FAILURE(Make(1));
    ASSERT_NO_FATAL_FAILURE(SaveAll(recorder, 0, d.saved));
    recorder.CloseFS();
    d.harm(Index(), DataPath(0));
    const size_t before = Log().size();

    Player fresh;
    ASSERT_EQ(fresh.OpenFS(0), FS_OK);
    const std::string line = Log().substr(before);
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
    EXPECT_NE(line.find(d.logged), std::string::npos) << line;
    ASSERT_NO_FATAL_FAILURE(SaveAll(fresh, d.saved, d.saved + 5));
    fresh.CloseFS();

    std::vector<std::string> expected;
    for (int i = 0; i < d.saved + 5; ++i) {
      if (i < d.survive || i >= d.saved) expected.push_back(Seen(i));
    }
    expected.push_back("#9");
    EXPECT_EQ(Walk(Time(0)), expected);
    EXPECT_EQ(FileSize(DataPath(0)), 67108864);
    // Set right for good: the next recorder finds nothing to repair.
    ASSERT_EQ(Player().OpenFS(0), FS_OK);
    EXPECT_EQ(Log().size(), before + line.size());
  }
}

TEST_F(RecoveryTest, AnIntactBasketIsOnlyRead) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  ASSERT_NO_FATAL_FAILURE(SaveAll(recorder, 0, 10));
  NextBasket();  // the ring of one: a new cycle over the old nodes and chunks
  for (const int i : {20, 30, 40, 25, 27, 50}) ASSERT_NO_FATAL_FAILURE(SaveAll(recorder, i, i + 1));
  ASSERT_EQ(SaveWith(recorder, 5, Time(5), 0x80010000u), FS_OK);  // appended unseen
  recorder.CloseFS();
  {
    // The power goes at the index header of a save: its node stays linked
    // behind the end the header names, as an insert cut there leaves it.
    molra::platform::ScopedFaultInjection faults;
    ASSERT_EQ(recorder.OpenFS(0), FS_OK);
    faults->CutPowerAtWrite(5);
    ASSERT_NO_FATAL_FAILURE(SaveAll(recorder, 60, 61));
    recorder.CloseFS();
  }

  std::map<std::string, Bytes> files = Files();
  files[Index()].replace(4, 4, Bytes(4, '\0'));  // a close marks the header closed
  for (int open = 0; open < 2; ++open) {
    ASSERT_EQ(recorder.OpenFS(0), FS_OK);
    recorder.CloseFS();
  }
  EXPECT_TRUE(Files() == files);
}

TEST_F(RecoveryTest, AReaderOfDamagedBasketsReadsWhatItCanAndWritesNothing) {
  ASSERT_NO_FATAL_FAILURE(Make(2));
  ASSERT_NO_FATAL_FAILURE(SaveAll(recorder, 0, 6));
  NextBasket();
  ASSERT_NO_FATAL_FAILURE(SaveAll(recorder, 6, 12));
  recorder.CloseFS();
  Poke(Index(0), 0, Bytes(28, '\0'));  // reached by a seek from the current basket
  Poke(Index(1), 0, Bytes(28, '\0'));
  Poke(DataPath(0), ChunkAt(5), Bytes(kStride, '\0'));  // basket 0's last chunk, never written
  const std::map<std::string, Bytes> files = Files();
  std::vector<std::string> expected;
  for (int i = 0; i < 12; ++i) {
    if (i != 5) expected.push_back(Seen(i));
  }
  expected.push_back("#9");
  EXPECT_EQ(Walk(Time(0)), expected);
  EXPECT_EQ(Walk(Time(8)), std::vector<std::string>(expected.begin() + 7, expected.end()));
  EXPECT_TRUE(Files() == files);
}

}  // namespace
}  // namespace molra_test
