// The store verifier: an intact store, aged and with out-of-order keys,
// has no findings and is only read; each kind of damage is found in the
// file it lies in; a save cut by the power leaves nothing but what a
// recording open repairs; a store that a recorder is writing shows no
// fault.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/fault_injection.h"
#include "recording/recording_fixture.h"
#include "verify/store_verifier.h"

namespace molra_test {
namespace {

constexpr DWORD RecordAt(int n) { return kHead + kRec * n; }

std::string Describe(const std::vector<molra::Finding>& findings) {
  std::string text;
  for (const molra::Finding& f : findings) {
    text += f.file + " at " + std::to_string(f.offset) + ": " + f.what + "\n";
  }
  return text;
}

class VerifyTest : public DamageTest {
 protected:
  // A chunk of `channel` at `t` with `info` in its flags.
  void SaveInfo(const SYSTEMTIME& t, int channel, DWORD info) {
    ASSERT_EQ(SaveWith(recorder, channel, t, info), FS_OK);
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
};

TEST_F(VerifyTest, AnIntactStoreHasNoFindingsAndIsOnlyRead) {
  std::vector<molra::Finding> findings{{"stale", 1, "stale"}};
  EXPECT_FALSE(molra::VerifyStore(&findings));  // no catalogue: nothing is read or made
  EXPECT_TRUE(findings.empty());
  EXPECT_FALSE(std::filesystem::exists(Real('c', "FSDIR")));

  ASSERT_NO_FATAL_FAILURE(Fill());
  // Shapes that are no fault: basket 1's front aged (its root moved), and
  // a left link in basket 0.
  EXPECT_NE(Get<DWORD>(ReadAll(Real('d', "MOLRA/FS000001.CIN"), 28), 8), NodeAt(0));
  const Bytes nodes = ReadAll(Real('d', "MOLRA/FS000000.CIN"), NodeAt(13));
  DWORD left = 0;
  for (int i = 0; i < 13; ++i) left |= Get<DWORD>(nodes, NodeAt(i) + 4);
  EXPECT_NE(left, 0u);
  const auto before = Files();
  std::vector<std::pair<DWORD, DWORD>> progress;
  EXPECT_TRUE(molra::VerifyStore(
      &findings, [&](DWORD done, DWORD total) { progress.emplace_back(done, total); }));
  EXPECT_EQ(Describe(findings), "");
  EXPECT_EQ(progress, (std::vector<std::pair<DWORD, DWORD>>{{1, 3}, {2, 3}, {3, 3}}));
  EXPECT_TRUE(Files() == before);
}

// Damage to one file of basket 2, the catalogue or a day file: `bytes`
// written at `at`; no bytes cut the file to `at` bytes, or with `at`
// kGone remove it. A finding must name the file and `found`.
constexpr DWORD kGone = 0xFFFFFFFF;
struct Fault { const char* file; DWORD at; Bytes bytes; DWORD found; };
// Basket 2's cells of channel 1 at 02:00, and the minute cell of channel 3
// at 02:00, whose chunks carry event bit 0x02.
constexpr DWORD kHourCell = 12 + (1 * 24 + 2) * 4;
constexpr DWORD kMinuteCell = 1548 + (3 * 24 + 2) * 60 * 4;
const char* const kCin = "D:\\MOLRA\\FS000002.CIN";
const char* const kCdt = "D:\\MOLRA\\FS000002.CDT";
const char* const kCta = "D:\\MOLRA\\FS000002.CTA";
const char* const kCft = "C:\\FSDIR\\MOLRA.CFT";
const char* const kDayFile = "C:\\FSDIR\\QS\\20101118.sti";

const Fault kFaults[] = {
    {kCin, NodeAt(4) + 8, Word(0), NodeAt(4)},              // lost link
    {kCin, 0, Bytes(28, '\0'), 0},                          // zeroed header
    {kCin, NodeAt(7) + 30, "x?", NodeAt(7)},                // torn node
    {kCin, NodeAt(10) + 20, "", NodeAt(10)},                // cut short
    {kCin, 24, Word(7), 24},                                // count off
    {kCin, NodeAt(5) + 21 + 8, "01", NodeAt(5)},            // key out of order
    {kCdt, ChunkAt(3) + 21, "\x09", ChunkAt(3)},            // header disagrees with its node
    {kCdt, ChunkAt(17), Bytes(3 * 38, '\0'), ChunkAt(17)},  // last chunks never written
    {kCdt, 8, Word(ChunkAt(19)), 8},                        // chunk past the write position
    {kCdt, 2, "MOLRO", 2},                                  // bad magic
    {kCdt, 8, Word(67108864 + 100), 8},                     // write position out of the file
    {kCdt, 1 << 20, "", 1 << 20},                           // short data file
    {kCta, kGone, "", 0},                                   // missing basket file
    {kCta, kHourCell, Word(0), kHourCell},                  // hour cell missing for a node
    {kCta, kMinuteCell + 3, Bytes(1, '\0'), kMinuteCell},   // event bits missing
    {kCta, 0, Bytes(4096, '\0'), 0},                        // zeroed 4 KiB page
    {kCft, 8, Word(4), 8},                                  // count past the records
    {kCft, 12, Word(3), 12},                                // dwCurrent past the list
    {kCft, 16, Word(9), 16},                                // dwOldest past the list
    {kCft, RecordAt(2) + 120, Word(5), RecordAt(2) + 120},  // chunk count disagrees
    {kCft, RecordAt(2) + 84, "\xDB", RecordAt(2) + 84},     // stFirst after stLast
    {kCft, RecordAt(2) + 124, Word(3), RecordAt(2) + 124},  // flags beyond bit 0
    {kDayFile, 3 * 25, "\x09", 75},                         // bad row
    {kDayFile, 26, "0", 26},                                // a '0' hour byte
};

TEST_F(VerifyTest, EachKindOfDamageIsFoundInItsFile) {
  for (const Fault& d : kFaults) {
    SCOPED_TRACE(testing::Message() << d.file << " at " << d.at);
    Fresh();
    ASSERT_NO_FATAL_FAILURE(Fill());
    std::string real = Real(d.file[0], d.file + 3);
    std::replace(real.begin(), real.end(), '\\', '/');
    if (d.at == kGone) {
      std::filesystem::remove(real);
    } else if (d.bytes.empty()) {
      std::filesystem::resize_file(real, d.at);
    } else {
      Poke(real, d.at, d.bytes);
    }
    std::vector<molra::Finding> findings;
    ASSERT_TRUE(molra::VerifyStore(&findings));
    bool found = false;
    for (const molra::Finding& f : findings) found |= f.file == d.file && f.offset == d.found;
    EXPECT_TRUE(found) << Describe(findings);
  }
}

// A save cut short by the power leaves a store in which a recording open
// repairs all that is found, and after which nothing is found.
TEST_F(VerifyTest, ACutSaveLeavesOnlyWhatARecordingOpenRepairs) {
  for (int run = 0; run < 24; ++run) {
    const bool rollover = run >= 12;
    const DWORD cut = run % 12 + 1;
    SCOPED_TRACE(testing::Message() << "rollover " << rollover << ", cut at write " << cut);
    Fresh();
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
      SaveWith(recorder, 5, At(3, 0, 0), 0x02010000);  // need not succeed
      recorder.CloseFS();
    }
    std::vector<molra::Finding> findings;
    ASSERT_TRUE(molra::VerifyStore(&findings));
    const Bytes catalogue = ReadAll(Real('c', "FSDIR/MOLRA.CFT"));
    const DWORD current = Get<DWORD>(catalogue, 12);
    if (current == 1 && Get<DWORD>(catalogue, RecordAt(1) + 120) == 5) {
      // The head moved on to basket 1 and its record was lost: the record
      // still counts the last cycle's chunks, and no open sets it right.
      EXPECT_NE(Describe(findings).find("MOLRA.CFT at 280: basket 1: dwChunks 5"),
                std::string::npos) << Describe(findings);
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
      SaveInfo(t, i % 16, (i % 7 == 0 ? 0x01000000u << (i % 3) : 0u) | 0x10000u);
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
