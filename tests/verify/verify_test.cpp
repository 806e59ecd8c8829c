// The store verifier: an intact store, aged and with out-of-order keys,
// has no findings and is only read; each kind of damage is found in the
// file it lies in; a save cut by the power leaves nothing but what a
// recording open repairs; a store that a recorder is writing shows no
// fault.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/fault_injection.h"
#include "playback/playback_fixture.h"
#include "verify/store_verifier.h"

namespace molra_test {
namespace {

constexpr DWORD kLength = 8;  // of every payload
constexpr DWORD Chunk(int i) { return 16 + (sizeof(_tagCHUNKHDR) + kLength) * i; }
constexpr DWORD Node(int i) { return 28 + 41 * i; }
constexpr DWORD RecordAt(int n) { return 32 + 128 * n; }

void Poke(const std::string& path, DWORD offset, const Bytes& bytes) {
  std::fstream(path, std::ios::binary | std::ios::in | std::ios::out)
      .seekp(offset)
      .write(bytes.data(), static_cast<long>(bytes.size()));
}
Bytes Word(DWORD value) { return Bytes(reinterpret_cast<const char*>(&value), sizeof value); }
DWORD WordIn(const Bytes& bytes, size_t offset) {
  DWORD value = 0;
  bytes.copy(reinterpret_cast<char*>(&value), sizeof value, offset);
  return value;
}

std::string Describe(const std::vector<molra::Finding>& findings) {
  std::string text;
  for (const molra::Finding& f : findings) {
    text += f.file + " at " + std::to_string(f.offset) + ": " + f.what + "\n";
  }
  return text;
}

class VerifyTest : public PlaybackTest {
 protected:
  void SaveInfo(const SYSTEMTIME& t, int channel, DWORD info) {
    _tagCHUNKHDR chunk{1, t, {}, static_cast<signed char>(channel), info, kLength};
    std::vector<BYTE> bytes = Payload(channel, t, kLength);
    DWORD remaining = 0;
    ASSERT_EQ(recorder.SaveData(&chunk, bytes.data(), &remaining, 0), FS_OK);
  }
  // Three baskets: basket 1 aged at its front (day 17 cut away), basket 2
  // a plain chain of 20 chunks at 38-byte strides, basket 0 reused with
  // an out-of-order key and one appended unseen; the day files of the
  // 18th on, with marks.
  void Fill() {
    ASSERT_NO_FATAL_FAILURE(Make(3));
    for (int i = 0; i < 6; ++i) SaveInfo(At(1, 0, i, 0, 16), i % 2, 0x10000);
    NextBasket();
    for (int i = 0; i < 10; ++i) SaveInfo(At(8, i, 0, 0, i < 5 ? 17 : 18), i % 3, 0x01010000);
    NextBasket();
    for (int i = 0; i < 20; ++i) {
      SaveInfo(At(2, 0, static_cast<WORD>(i)), i % 4, (i % 3 == 0 ? 0x02000000u : 0) | 0x10000);
    }
    NextBasket();  // the ring wraps: basket 0 again, basket 1 the oldest
    for (int i = 0; i < 10; ++i) SaveInfo(At(5, 0, static_cast<WORD>(i)), i % 5, 0x04010000);
    SaveInfo(At(5, 0, 3, 500), 7, 0x00010000);  // descends to a left link
    SaveInfo(At(5, 0, 1, 0), 8, 0x80010000);    // appended unseen
    SaveInfo(At(5, 1, 0), 2, 0x01000000);
    _tagFSBSKINFO info{};
    ASSERT_EQ(recorder.GetOldestBasketInfoAndBasketControl(1, &info), 1);
    for (const int channel : {0, 3, 15}) ASSERT_EQ(recorder.SaveTimeWrite(At(2, 0, 0), channel), 1);
    recorder.CloseFS();
  }
  // Every file of the store: its size and a hash of its bytes.
  std::map<std::string, std::pair<size_t, size_t>> Files() const {
    std::map<std::string, std::pair<size_t, size_t>> files;
    for (const char drive : {'c', 'd'}) {
      if (!std::filesystem::exists(Root(drive))) continue;
      for (const auto& entry : std::filesystem::recursive_directory_iterator(Root(drive))) {
        if (!entry.is_regular_file()) continue;
        const Bytes bytes = ReadAll(entry.path().string());
        files[entry.path().string()] = {bytes.size(), std::hash<Bytes>()(bytes)};
      }
    }
    return files;
  }
};

TEST_F(VerifyTest, AnIntactStoreHasNoFindingsAndIsOnlyRead) {
  std::vector<molra::Finding> findings{{"stale", 1, "stale"}};
  EXPECT_FALSE(molra::VerifyStore(&findings));  // no catalogue: nothing is read or made
  EXPECT_TRUE(findings.empty());
  EXPECT_FALSE(std::filesystem::exists(Real('c', "FSDIR")));

  ASSERT_NO_FATAL_FAILURE(Fill());
  // Shapes that are no fault: basket 1's front aged (its root moved), and
  // a left link in basket 0.
  EXPECT_NE(WordIn(ReadAll(Real('d', "MOLRA/FS000001.CIN"), 28), 8), Node(0));
  const Bytes nodes = ReadAll(Real('d', "MOLRA/FS000000.CIN"), Node(13));
  DWORD left = 0;
  for (int i = 0; i < 13; ++i) left |= WordIn(nodes, Node(i) + 4);
  EXPECT_NE(left, 0u);
  const auto before = Files();
  std::vector<std::pair<DWORD, DWORD>> progress;
  EXPECT_TRUE(molra::VerifyStore(
      &findings, [&](DWORD done, DWORD total) { progress.emplace_back(done, total); }));
  EXPECT_EQ(Describe(findings), "");
  EXPECT_EQ(progress, (std::vector<std::pair<DWORD, DWORD>>{{1, 3}, {2, 3}, {3, 3}}));
  EXPECT_TRUE(Files() == before);
}

// The real paths of the files that damage reaches.
struct Paths {
  std::string cin, cdt, cta, cft, day;
};
using P = const Paths&;
struct Fault {
  const char* name;
  void (*harm)(P);
  const char* file;  // the store's path of the file a finding must name
  DWORD offset;
};

const char* const kCin = "D:\\MOLRA\\FS000002.CIN";
const char* const kCdt = "D:\\MOLRA\\FS000002.CDT";
const char* const kCta = "D:\\MOLRA\\FS000002.CTA";
const char* const kCft = "C:\\FSDIR\\MOLRA.CFT";
const char* const kDay = "C:\\FSDIR\\QS\\20101118.sti";
// Basket 2's cells of channel 1 at 02:00, and the minute cell of channel 3
// at 02:00, whose chunks carry event bit 0x02.
constexpr DWORD kHourCell = 12 + (1 * 24 + 2) * 4;
constexpr DWORD kMinuteCell = 1548 + (3 * 24 + 2) * 60 * 4;

const Fault kFaults[] = {
    {"lost index link", [](P p) { Poke(p.cin, Node(4) + 8, Word(0)); }, kCin, Node(4)},
    {"zeroed index header", [](P p) { Poke(p.cin, 0, Bytes(28, '\0')); }, kCin, 0},
    {"torn index node", [](P p) { Poke(p.cin, Node(7) + 30, "x?"); }, kCin, Node(7)},
    {"index cut short", [](P p) { std::filesystem::resize_file(p.cin, Node(10) + 20); }, kCin,
     Node(10)},
    {"index count off", [](P p) { Poke(p.cin, 24, Word(7)); }, kCin, 24},
    {"key out of order", [](P p) { Poke(p.cin, Node(5) + 21 + 8, "01"); }, kCin, Node(5)},
    {"chunk header disagrees with its node", [](P p) { Poke(p.cdt, Chunk(3) + 21, "\x09"); }, kCdt,
     Chunk(3)},
    {"last chunks never written", [](P p) { Poke(p.cdt, Chunk(17), Bytes(3 * 38, '\0')); }, kCdt,
     Chunk(17)},
    {"chunk past the write position", [](P p) { Poke(p.cdt, 8, Word(Chunk(19))); }, kCdt, 8},
    {"data head with a bad magic", [](P p) { Poke(p.cdt, 2, "MOLRO"); }, kCdt, 2},
    {"write position out of the file", [](P p) { Poke(p.cdt, 8, Word(67108864 + 100)); }, kCdt, 8},
    {"short data file", [](P p) { std::filesystem::resize_file(p.cdt, 1 << 20); }, kCdt, 1 << 20},
    {"missing basket file", [](P p) { std::filesystem::remove(p.cta); }, kCta, 0},
    {"presence cell missing for a node", [](P p) { Poke(p.cta, kHourCell, Word(0)); }, kCta,
     kHourCell},
    {"event bits missing from a cell", [](P p) { Poke(p.cta, kMinuteCell + 3, Bytes(1, '\0')); },
     kCta, kMinuteCell},
    {"zeroed 4 KiB page of a day table", [](P p) { Poke(p.cta, 0, Bytes(4096, '\0')); }, kCta, 0},
    {"catalogue count past the records", [](P p) { Poke(p.cft, 8, Word(4)); }, kCft, 8},
    {"dwCurrent out of range", [](P p) { Poke(p.cft, 12, Word(3)); }, kCft, 12},
    {"dwOldest out of range", [](P p) { Poke(p.cft, 16, Word(9)); }, kCft, 16},
    {"record whose chunk count disagrees", [](P p) { Poke(p.cft, RecordAt(2) + 120, Word(5)); },
     kCft, RecordAt(2) + 120},
    {"record whose stFirst lies after stLast", [](P p) { Poke(p.cft, RecordAt(2) + 84, "\xDB"); },
     kCft, RecordAt(2) + 84},
    {"record flags beyond bit 0", [](P p) { Poke(p.cft, RecordAt(2) + 124, Word(3)); }, kCft,
     RecordAt(2) + 124},
    {"day file with a bad row", [](P p) { Poke(p.day, 3 * 25, "\x09"); }, kDay, 75},
    {"day file with a '0' hour byte", [](P p) { Poke(p.day, 26, "0"); }, kDay, 26},
};

TEST_F(VerifyTest, EachKindOfDamageIsFoundInItsFile) {
  for (const Fault& d : kFaults) {
    SCOPED_TRACE(d.name);
    for (const char drive : {'c', 'd'}) std::filesystem::remove_all(Root(drive));
    ASSERT_NO_FATAL_FAILURE(Fill());
    d.harm(Paths{Real('d', "MOLRA/FS000002.CIN"), Real('d', "MOLRA/FS000002.CDT"),
                 Real('d', "MOLRA/FS000002.CTA"), Real('c', "FSDIR/MOLRA.CFT"),
                 Real('c', "FSDIR/QS/20101118.sti")});
    std::vector<molra::Finding> findings;
    ASSERT_TRUE(molra::VerifyStore(&findings));
    bool found = false;
    for (const molra::Finding& f : findings) found |= f.file == d.file && f.offset == d.offset;
    EXPECT_TRUE(found) << Describe(findings);
  }
}

// A save cut short by the power leaves a store in which a recording open
// repairs all that is found, and after which nothing is found.
TEST_F(VerifyTest, ACutSaveLeavesOnlyWhatARecordingOpenRepairs) {
  for (const bool rollover : {false, true}) {
    for (DWORD cut = 1; cut <= 12; ++cut) {
      SCOPED_TRACE(std::string(rollover ? "rollover, " : "") + "cut at write " +
                   std::to_string(cut));
      for (const char drive : {'c', 'd'}) std::filesystem::remove_all(Root(drive));
      ASSERT_NO_FATAL_FAILURE(Make(2));
      for (int i = 0; i < 15; ++i) {  // baskets 0, 1 and 0 again: a rollover meets a used one
        if (i == 5 || i == 10) NextBasket();
        SaveInfo(At(2, 0, static_cast<WORD>(i)), i % 4, 0x01010000);
      }
      recorder.CloseFS();
      {
        molra::platform::ScopedFaultInjection faults;
        ASSERT_EQ(recorder.OpenFS(0), FS_OK);
        if (rollover) NextBasket();
        faults->CutPowerAtWrite(cut);
        _tagCHUNKHDR chunk{1, At(3, 0, 0), {}, 5, 0x02010000, kLength};
        std::vector<BYTE> bytes(kLength);
        DWORD remaining = 0;
        recorder.SaveData(&chunk, bytes.data(), &remaining, 0);
        recorder.CloseFS();
      }
      std::vector<molra::Finding> findings;
      ASSERT_TRUE(molra::VerifyStore(&findings));
      const Bytes catalogue = ReadAll(Real('c', "FSDIR/MOLRA.CFT"));
      const DWORD current = WordIn(catalogue, 12);
      if (current == 1 && WordIn(catalogue, RecordAt(1) + 120) == 5) {
        // The head moved on to basket 1 and its record was lost: the record
        // still counts the last cycle's chunks, and no open sets it right.
        EXPECT_NE(Describe(findings).find("MOLRA.CFT at 280: basket 1: dwChunks 5"),
                  std::string::npos)
            << Describe(findings);
        continue;
      }
      const std::string repaired = "D:\\MOLRA\\FS00000" + std::to_string(current) + ".C";
      for (const molra::Finding& f : findings) {
        EXPECT_TRUE(f.file == repaired + "IN" || f.file == repaired + "DT") << Describe(findings);
      }
      ASSERT_EQ(recorder.OpenFS(0), FS_OK);
      SaveInfo(At(4, 0, 0), 6, 0x04010000);
      recorder.CloseFS();
      ASSERT_TRUE(molra::VerifyStore(&findings));
      EXPECT_EQ(Describe(findings), "");
    }
  }
}

TEST_F(VerifyTest, AStoreThatIsBeingRecordedShowsNoFault) {
  ASSERT_NO_FATAL_FAILURE(Make(3));
  std::atomic<bool> stop{false};
  std::thread recording([&] {
    for (int i = 0, since = 0, rolls = 0; i < 70000 && !stop; ++i) {
      // Rollovers all the while, no two cycles of a basket alike.
      if (++since == 240 + rolls % 20) {
        NextBasket();
        since = 0;
        ++rolls;
      }
      const SYSTEMTIME t = At(static_cast<WORD>(3 + i / 3600), static_cast<WORD>(i / 60 % 60),
                              static_cast<WORD>(i % 60), static_cast<WORD>(i * 37 % 1000));
      _tagCHUNKHDR chunk{1,
                         t,
                         {},
                         static_cast<signed char>(i % 16),
                         (i % 7 == 0 ? 0x01000000u << (i % 3) : 0u) | 0x10000u,
                         kLength};
      std::vector<BYTE> bytes = Payload(i % 16, t, kLength);
      DWORD remaining = 0;
      EXPECT_EQ(recorder.SaveData(&chunk, bytes.data(), &remaining, 0), FS_OK) << i;
      if (i % 400 == 0) recorder.SaveTimeWrite(t, static_cast<char>(i % 16));
    }
  });
  std::vector<molra::Finding> findings;
  for (int run = 0; run < 20 && findings.empty(); ++run) {
    EXPECT_TRUE(molra::VerifyStore(&findings));
    EXPECT_EQ(Describe(findings), "") << "run " << run;
  }
  stop = true;
  recording.join();
}

}  // namespace
}  // namespace molra_test
