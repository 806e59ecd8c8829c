// The opt-in check of each chunk against the index entry that leads to it.
#include <fstream>

#include "molra/platform.h"
#include "platform/fault_injection.h"
#include "playback/playback_fixture.h"

namespace molra_test {
namespace {

class StrictChunksTest : public PlaybackTest {
 protected:
  void TearDown() override {
    molra::platform::SetStrictChunks(false);
    PlaybackTest::TearDown();
  }
  void SetWritePos(DWORD position) {
    std::fstream data(DataPath(0), std::ios::in | std::ios::out | std::ios::binary);
    data.seekp(offsetof(_tagDATAHDR, dwWritePos));
    data.write(reinterpret_cast<const char*>(&position), sizeof position);
  }
};

TEST_F(StrictChunksTest, AHeaderThatDisagreesWithItsNodeOrReachesPastTheHeadIsRefused) {
  Make(1);
  for (WORD second = 1; second <= 4; ++second) Save(2, At(10, 0, second));
  Damage(0, 1, [](_tagCHUNKHDR& h) { h.chChannel = 7; });
  Play();
  // Off, the validity test alone lets the damaged header through.
  EXPECT_EQ(Seek(-1, At(10, 0, 1), true), "c2 10:00:01");
  EXPECT_EQ(Step(-1), "bad payload");
  EXPECT_EQ(DefectLog(), "");

  molra::platform::SetStrictChunks(true);
  EXPECT_EQ(Seek(-1, At(10, 0, 1), true), "c2 10:00:01");
  EXPECT_EQ(Step(-1), "#6");
  EXPECT_NE(DefectLog().find("FsNoExistData Time = "), std::string::npos);
  EXPECT_NE(DefectLog().find("ReadData():[D:\\MOLRA\\FS000000]:[11-18, 10:0:2]:[8]\n"),
            std::string::npos);
  EXPECT_EQ(Step(-1), "c2 10:00:03");

  // A head left behind the third chunk: it is refused, and the fourth,
  // which starts where no head reaches either; one starting right at the
  // head may still be waiting for the recorder's head write.
  SetWritePos(Offset(0, 2) + 1);
  EXPECT_EQ(Seek(-1, At(10, 0, 3), true), "#6");
  SetWritePos(Offset(0, 3));
  EXPECT_EQ(Seek(-1, At(10, 0, 3), true), "c2 10:00:03");
  EXPECT_EQ(Step(-1), "c2 10:00:04");
  // A stamp its key does not hold.
  Damage(0, 3, [](_tagCHUNKHDR& h) { h.stTime.wMilliseconds = 1; });
  EXPECT_EQ(Seek(-1, At(10, 0, 3), true), "c2 10:00:03");
  EXPECT_EQ(Step(-1), "#6");
}

TEST_F(StrictChunksTest, AChunkTheRecorderWritesOverWhileItIsReadIsRefused) {
  Make(1);
  Save(1, At(10, 0, 5), true, 100);
  molra::platform::SetStrictChunks(true);
  const DWORD payloadAt = Offset(0, 0) + sizeof(_tagCHUNKHDR);
  molra::platform::ScopedFaultInjection faults;
  // The ring of one comes round while the first chunk's payload is read.
  faults->beforeReadAt = [&](const std::string& path, DWORD position, DWORD count) {
    if (path.find(".CDT") == std::string::npos || position != payloadAt || count != 100) return;
    faults->beforeReadAt = nullptr;
    NextBasket();
    Save(1, At(10, 1, 0), true, 100);
  };
  Play();
  EXPECT_EQ(Seek(-1, At(10, 0, 5), true), "#6");
  EXPECT_NE(DefectLog().find("[11-18, 10:0:5]:[100]"), std::string::npos);
  // Their files were opened through the injection, which goes first.
  player.CloseFS();
  recorder.CloseFS();
}

}  // namespace
}  // namespace molra_test
