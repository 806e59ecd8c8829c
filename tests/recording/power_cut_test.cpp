// A power cut at any write of a save: a fresh object opens the store,
// finds every chunk saved before the cut and records on from there.
#include <filesystem>

#include "platform/fault_injection.h"
#include "recording/recording_fixture.h"

namespace molra_test {
namespace {

struct Cut {
  const char* name;
  std::vector<SYSTEMTIME> before;  // saved while the power is on
  SYSTEMTIME cut, next;            // the save the power stops; the first after the restart
  bool rolls;                      // the cut save starts basket 1
};
const Cut kCuts[] = {
    {"a new hour in the middle of a basket", {At(9, 30, 1), At(9, 30, 2)}, At(10, 0, 3),
     At(10, 0, 4), false},
    {"the first chunk of a new day", {At(23, 59, 58)}, At(0, 0, 1, 0, 19), At(0, 0, 2, 0, 19),
     false},
    {"a rollover to the next basket", {At(9, 30, 1)}, At(9, 30, 2), At(9, 30, 3), true},
};

using PowerCutTest = DamageTest;

TEST_F(PowerCutTest, AtEveryWriteOfASaveTheStoreKeepsWhatWasSavedAndRecordsOn) {
  for (const Cut& c : kCuts) {
    SCOPED_TRACE(c.name);
    bool completed = false, kept = false;
    for (DWORD n = 1; !completed; ++n) {
      SCOPED_TRACE("power cut at write " + std::to_string(n));
      ASSERT_LT(n, 40u) << "the save never completed";
      for (const char drive : {'c', 'd'}) std::filesystem::remove_all(Root(drive));
      ASSERT_NO_FATAL_FAILURE(Make(2));
      for (const SYSTEMTIME& t : c.before) ASSERT_EQ(SaveWith(recorder, 3, t), FS_OK);
      recorder.CloseFS();
      if (c.rolls) Poke(DataPath(1), 8, Raw(DWORD{1000000}));  // as an earlier cycle left it
      {
        molra::platform::ScopedFaultInjection faults;
        ASSERT_EQ(recorder.OpenFS(0), FS_OK);
        if (c.rolls) NextBasket();  // as 70,001 saves would leave it
        ASSERT_EQ(recorder.SaveFSInfo(0), FS_OK);
        faults->CutPowerAtWrite(n);
        const LONG result = SaveWith(recorder, 3, c.cut);
        completed = !faults->PowerCut();
        EXPECT_TRUE(!completed || result == FS_OK);
        recorder.CloseFS();  // while the power is off
      }
      Player fresh;
      ASSERT_EQ(fresh.OpenFS(0), FS_OK);
      ASSERT_EQ(SaveWith(fresh, 3, c.next), FS_OK);
      fresh.CloseFS();
      std::vector<std::string> want;
      for (const SYSTEMTIME& t : c.before) want.push_back(Seen(3, t));
      const std::vector<std::string> found = Walk(c.before[0]);
      // Nothing is kept by a cut at the first write, all by none at all,
      // and what one cut keeps every later cut keeps too.
      const bool keeps = found.size() == want.size() + 3;
      EXPECT_TRUE(keeps ? n > 1 : !completed && !kept);
      kept = keeps;
      if (kept) want.push_back(Seen(3, c.cut));
      want.insert(want.end(), {Seen(3, c.next), "#9"});
      EXPECT_EQ(found, want);
      // The chunks lie end to end: a lost one's place goes to the next.
      const size_t inLast = want.size() - 2 - (c.rolls ? c.before.size() : 0);
      EXPECT_EQ(Offset(c.rolls ? 1 : 0, inLast), 16 + (sizeof(_tagCHUNKHDR) + 8) * inLast);
    }
  }
}

}  // namespace
}  // namespace molra_test
