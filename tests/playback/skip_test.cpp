// Key-frame skips: the decision on one key frame, the walk across
// baskets in both directions, and the bound of one call.
#include "playback/playback_fixture.h"

namespace molra_test {
namespace {

using SkipTest = PlaybackTest;

TEST_F(SkipTest, ADecisionCountsSecondsFromTheAnchorAndChannelsWithinIt) {
  char at09[] = "20101118100009000000";
  char at10[] = "20101118100010000000";
  char at11[] = "20101118100011000000";
  const auto base = [](const SYSTEMTIME& t) { return static_cast<DWORD>(CTime(t).GetTime()); };

  player.m_stLastRead = At(10, 0, 0);
  EXPECT_EQ(player.SkipNextFrame(at09, 0, 10, base(At(10, 0, 0))), 0);
  EXPECT_EQ(player.m_ChanHits[0], 1);  // cleared for the new second all the same
  EXPECT_EQ(player.m_stLastRead.wSecond, 0);
  EXPECT_EQ(player.SkipNextFrame(at10, 0, 10, base(At(10, 0, 0))), 1);
  EXPECT_EQ(player.m_stLastRead.wSecond, 10);
  // In the anchor's second each channel comes once.
  EXPECT_EQ(player.SkipNextFrame(at10, 0, 10, 0), 0);
  EXPECT_EQ(player.SkipNextFrame(at10, 2, 10, 0), 1);
  EXPECT_EQ(player.SkipNextFrame(at10, 2, 10, 0), 0);

  player.m_stLastRead = At(10, 0, 20);
  EXPECT_EQ(player.SkipPrevFrame(at11, 0, 10, base(At(10, 0, 20))), 0);
  EXPECT_EQ(player.SkipPrevFrame(at10, 0, 10, base(At(10, 0, 20))), 1);
  // Nothing delivered yet: both directions pass, backward by wrapping.
  player.m_stLastRead = SYSTEMTIME{};
  EXPECT_EQ(player.SkipNextFrame(at09, 1, 10, 0), 1);
  player.m_stLastRead = SYSTEMTIME{};
  EXPECT_EQ(player.SkipPrevFrame(at09, 1, 10, 0), 1);
}

TEST_F(SkipTest, SkipsWalkKeyFramesAcrossBasketsBothWays) {
  ASSERT_NO_FATAL_FAILURE(Lay(2, {{1, At(10, 0, 0), true}, {1, At(10, 0, 0, 500), true},
                                  {2, At(10, 0, 0, 600), true}, {2, At(10, 0, 0, 700), true},
                                  {0, At(10, 0, 5)}, {0, At(10, 0, 9), true}, kNext,
                                  {1, At(10, 0, 10), true}, {0, At(10, 0, 11), true},
                                  {0, At(10, 0, 25), true}, {0, At(10, 0, 40), true}}));
  Damage(1, 3, [](_tagCHUNKHDR& h) { h.stTime.wMonth = 13; });
  Play();

  EXPECT_EQ(Skip(10), "#6");  // nothing to skip from before a seek
  ASSERT_EQ(Seek(1, At(10, 0, 0), true), "c1 10:00:00");
  EXPECT_EQ(Skip(0), "c2 10:00:00");
  _tagCHUNKHDR one{};
  EXPECT_EQ(player.ReadNextDataEx2(&one, payload.data(), 10), FS_ERR_FILE);  // channel 0: no move
  EXPECT_EQ(Skip(10), "c1 10:00:10");
  EXPECT_EQ(Skip(10), "c0 10:00:25");
  // A damaged key frame far enough on moves the anchor before it is refused.
  EXPECT_EQ(Skip(10), "#6");
  EXPECT_EQ(player.m_stLastRead.wSecond, 40);
  EXPECT_EQ(Skip(10), "#9");

  EXPECT_EQ(Skip(15, false), "c0 10:00:25");
  EXPECT_EQ(Skip(15, false), "c1 10:00:10");
  EXPECT_EQ(Skip(10, false), "c2 10:00:00");
  EXPECT_EQ(Skip(10, false), "c1 10:00:00");
  EXPECT_EQ(player.m_stLastRead.wMilliseconds, 0);  // the anchor is the second's
  EXPECT_EQ(Skip(10, false), "#10");
}

TEST_F(SkipTest, OneCallMovesAtMost4800Times) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  // Key frames at nodes 0, 4,800 and 9,601; 10 ms apart.
  for (int i = 0; i <= 9601; ++i) {
    const int ms = i * 10;
    Save(0, At(10, static_cast<WORD>(ms / 60000), static_cast<WORD>(ms / 1000 % 60),
               static_cast<WORD>(ms % 1000)),
         i == 0 || i == 4800 || i == 9601);
  }
  Play();
  ASSERT_EQ(Seek(-1, At(10, 0, 0), true), "c0 10:00:00");
  EXPECT_EQ(Skip(0), "c0 10:00:48");  // the 4,800th move is judged
  EXPECT_EQ(Skip(0), "#6");           // the 4,801st is not
  EXPECT_EQ(Skip(0), "c0 10:01:36");  // a fresh count goes on from there
}

}  // namespace
}  // namespace molra_test
