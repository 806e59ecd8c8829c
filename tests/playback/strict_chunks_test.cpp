// The opt-in check of each chunk against the index entry that leads to it.
#include <fstream>

#include "platform/fault_injection.h"
#include "playback/playback_fixture.h"

namespace molra_test {
namespace {

using StrictChunksTest = PlaybackTest;

TEST_F(StrictChunksTest, AChunkThatDisagreesWithItsNodePassesTheHeadOrIsOverwrittenIsRefused) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  for (WORD second = 1; second <= 4; ++second) Save(2, At(10, 0, second), true, 100);
  // A channel, then a stamp, that the chunk's key does not hold.
  Damage(0, 1, [](_tagCHUNKHDR& h) { h.chChannel = 7; });
  Damage(0, 2, [](_tagCHUNKHDR& h) { h.stTime.wMilliseconds = 1; });
  Play();
  // Off, the validity test alone lets the damaged header through.
  EXPECT_EQ(Seek(-1, At(10, 0, 2), true), "bad payload");
  EXPECT_EQ(DefectLog(), "");

  molra::platform::SetStrictChunks(true);
  EXPECT_EQ(Seek(-1, At(10, 0, 1), true), "c2 10:00:01");
  for (const char* expected : {"#6", "#6", "c2 10:00:04"}) EXPECT_EQ(Step(-1), expected);
  EXPECT_NE(DefectLog().find("ReadData():[D:\\MOLRA\\FS000000]:[11-18, 10:0:2]:[100]\n"),
            std::string::npos);
  // A head inside a chunk refuses it; one right at its start may still be
  // waiting for the recorder's head write.
  for (const DWORD past : {1u, 0u}) {
    const DWORD head = Offset(0, 3) + past;
    std::fstream(DataPath(0), std::ios::in | std::ios::out | std::ios::binary)
        .seekp(offsetof(_tagDATAHDR, dwWritePos))
        .write(reinterpret_cast<const char*>(&head), sizeof head);
    EXPECT_EQ(Seek(-1, At(10, 0, 4), true), past ? "#6" : "c2 10:00:04");
  }

  // The ring of one comes round while the first chunk's payload is read.
  const DWORD payloadAt = Offset(0, 0) + sizeof(_tagCHUNKHDR);
  molra::platform::ScopedFaultInjection faults;
  faults->beforeReadAt = [&](const std::string& path, DWORD position, DWORD count) {
    if (path.find(".CDT") == std::string::npos || position != payloadAt || count != 100) return;
    faults->beforeReadAt = nullptr;
    NextBasket();
    Save(1, At(10, 1, 0), true, 100);
  };
  Play();
  EXPECT_EQ(Seek(-1, At(10, 0, 1), true), "#6");
  EXPECT_NE(DefectLog().find("[11-18, 10:0:1]:[100]"), std::string::npos);
  // Their files were opened through the injection, which goes first.
  player.CloseFS();
  recorder.CloseFS();
}

}  // namespace
}  // namespace molra_test
