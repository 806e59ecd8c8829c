// Seeking a minute or a second: exact times only, refusals, the basket a
// shared minute or second is played from, channel walks, damaged chunks
// and a damaged tree.
#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "molra/platform.h"
#include "playback/playback_fixture.h"

namespace molra_test {
namespace {

using SeekTest = PlaybackTest;

TEST_F(SeekTest, FindsExactMinutesAndSecondsOnlyAndFailsOnAStopOrAnUnreadablePayload) {
  EXPECT_EQ(Seek(-1, At(10, 5, 0), false), "#6");  // never opened
  ASSERT_NO_FATAL_FAILURE(Lay(2, {{1, At(10, 5, 7, 100)}, {3, At(10, 5, 9)}, {1, At(10, 6, 0)},
                                  {1, At(10, 7, 30)}, {3, At(0, 0, 10, 0, 19)}, kNext,
                                  {0, At(0, 0, 11, 0, 19)}, {7, At(0, 0, 12, 0, 19)}}));
  _tagCHUNKHDR h{0, At(0, 0, 11, 0, 19), {}, -1, 0, 0};
  EXPECT_EQ(recorder.ReadDataEx(&h, payload.data()), FS_ERR_MODE);
  Play();

  EXPECT_EQ(Seek(-1, At(10, 5, 0), false), "c1 10:05:07");  // the minute's earliest, true second
  EXPECT_EQ(std::make_pair(player.readings, +player.m_stLastRead.wMilliseconds),
            std::make_pair(1, 100));
  EXPECT_EQ(Seek(-1, At(10, 5, 9), true), "c3 10:05:09");
  EXPECT_EQ(std::make_pair(+player.m_ChanHits[3], +player.m_ChanHits[1]), std::make_pair(1, 0));
  // Between recordings: no nearest chunk is offered.
  EXPECT_EQ(Seek(-1, At(10, 5, 8), true), "#6");
  EXPECT_EQ(Seek(-1, At(10, 8, 0), false), "#6");
  // A channel is walked to, also past the end of the day asked.
  EXPECT_EQ(Seek(3, At(10, 5, 0), false), "c3 10:05:09");
  EXPECT_EQ(Seek(3, At(10, 6, 0), false), "c3 00:00:10");
  EXPECT_EQ(Seek(7, At(10, 5, 0), false), "#6");  // the next basket holds only the next day

  // A stop: only the basket's opening looks for it.
  player.SetExit(1);
  EXPECT_EQ(Seek(-1, At(10, 5, 0), false), "#6");
  EXPECT_EQ(Seek(-1, At(10, 5, 9), true), "#7");
  player.SetExit(0);
  // The last chunk's payload lies beyond the end of its file: a seek or a
  // step to it fails, unlogged, and leaves the reader on it.
  std::filesystem::resize_file(DataPath(1), Offset(1, 1) + sizeof(_tagCHUNKHDR) + 4);
  EXPECT_EQ(Seek(-1, At(0, 0, 12, 0, 19), true), "#6");
  EXPECT_EQ(player.m_stLastRead.wSecond, 12);
  EXPECT_EQ(player.ReadDataEx2(&h, nullptr), FS_ERR_FILE);  // so is one with no room for it
  EXPECT_EQ(Seek(-1, At(0, 0, 11, 0, 19), true), "c0 00:00:11");
  EXPECT_EQ(Step(-1), "#2");
  EXPECT_EQ(std::make_tuple(+player.m_stLastRead.wSecond, player.readings, DefectLog()),
            std::make_tuple(12, 5, ""));

  // Local time: second 0 asks for the minute, any other for the second. An
  // hour ahead of UTC the stamp goes there and back, but not after a failure.
  const auto local = [this](Player& p, const SYSTEMTIME& t) {
    _tagCHUNKHDR h{0, t, {}, -1, 0, 0};
    const LONG r = p.ReadData(&h, payload.data(), 1);
    return std::to_string(r) + Brief(FS_OK, h);
  };
  EXPECT_EQ(local(player, At(10, 5, 0)), "0c1 10:05:07");
  EXPECT_EQ(local(player, At(10, 5, 9)), "0c3 10:05:09");
  TIME_ZONE_INFORMATION ahead{};
  ahead.Bias = -60;
  molra::platform::SetTimeZone(&ahead);
  Player later;
  ASSERT_EQ(later.OpenFS(1), FS_OK);
  EXPECT_EQ(local(later, At(11, 5, 9)), "0c3 11:05:09");
  EXPECT_EQ(local(later, At(11, 5, 8)), std::to_string(FS_ERR_FILE) + "c-1 10:05:08");
}

TEST_F(SeekTest, SharedMinuteIsPlayedFromTheOlderBasketSharedSecondFromTheCurrent) {
  ASSERT_NO_FATAL_FAILURE(Lay(2, {{0, At(10, 5, 10)}, {0, At(10, 5, 20, 100)}, kNext,
                                  {0, At(10, 5, 20, 500)}, {5, At(10, 5, 40)}}, true));
  ASSERT_EQ(player.m_FsHdr.dwCurrent, 1u);

  EXPECT_EQ(Seek(-1, At(10, 5, 0), false), "c0 10:05:10");
  EXPECT_EQ(player.m_nOpenBasket, 0);
  EXPECT_EQ(Seek(-1, At(10, 5, 20), true), "c0 10:05:20");
  EXPECT_EQ(player.m_stLastRead.wMilliseconds, 500);
  EXPECT_EQ(player.m_nOpenBasket, 1);
  // A channel walk goes on into a basket that holds the minute it ended on.
  EXPECT_EQ(Seek(5, At(10, 5, 0), false), "c5 10:05:40");
  // Both baskets hold the minute: the walk ends after one round.
  EXPECT_EQ(Seek(7, At(10, 5, 0), false), "#6");
}

TEST_F(SeekTest, DamagedChunksAreRefusedAndLoggedAndWalksRoundADamagedTreeEnd) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  for (WORD s = 0; s <= 6; ++s) Save(0, At(10, 0, s));
  Damage(0, 0, [](auto& h) { h.stTime.wDay = 31, h.stTime.wHour = 24, h.stTime.wSecond = 60; });
  Damage(0, 1, [](auto& h) { h.stTime.wMinute = 60; });
  Damage(0, 3, [](auto& h) { h.stTime.wHour = 25; });
  Damage(0, 4, [](auto& h) { h.dwLength = 811009; });
  Damage(0, 5, [](auto& h) { h.stTime.wMonth = 13; });
  Damage(0, 6, [](auto& h) { h.dwLength = 811008; });
  Play();

  EXPECT_EQ(Seek(-1, At(10, 0, 0), true), "c0 24:00:60");  // the limits themselves pass
  EXPECT_EQ(Seek(-1, At(10, 0, 1), true), "c0 10:60:01");
  EXPECT_EQ(Seek(-1, At(10, 0, 3), true), "#6");
  const std::string pair =
      "FsNoExistData Time = 2010-11-18 09:30:15\n"
      "ReadData():[D:\\MOLRA\\FS000000]:[11-18, 25:0:3]:[8]\n";
  EXPECT_EQ(DefectLog(), pair);
  EXPECT_EQ(player.readings, 2);
  EXPECT_EQ(Seek(-1, At(10, 0, 4), true), "#6");
  EXPECT_EQ(Seek(-1, At(10, 0, 5), true), "#6");
  EXPECT_EQ(Step(-1), "c0 10:00:06");  // the step goes on behind the refused chunk
  const std::string log = DefectLog();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 6);
  EXPECT_NE(log.find("[11-18, 10:0:4]:[811009]\n"), std::string::npos);

  // The second node's right link leads back to the first: walks for a
  // channel that is not there go round until they give up.
  const DWORD first = molra::kRootOffset;
  std::fstream(Real('d', "MOLRA/FS000000.CIN"), std::ios::in | std::ios::out | std::ios::binary)
      .seekp(first + molra::kNodeSize + offsetof(_tagIDXNODE, dwRight))
      .write(reinterpret_cast<const char*>(&first), sizeof first);
  EXPECT_EQ(Seek(5, At(10, 0, 0), false), "#6");
  ASSERT_EQ(Seek(-1, At(10, 0, 1), true), "c0 10:60:01");
  EXPECT_EQ(Step(5), "#6");
}

}  // namespace
}  // namespace molra_test
