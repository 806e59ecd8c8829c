// Stepping through the ring: its seam and its ends, one-channel walks,
// empty chunks, and where a failed seek leaves the reader.
#include "molra/platform.h"
#include "playback/playback_fixture.h"

namespace molra_test {
namespace {

using StepTest = PlaybackTest;

TEST_F(StepTest, StepsCrossBasketsStopAtTheEndsOfTheRingAndChannelWalksTakeMessages) {
  // Baskets 1, 2 and 0 in ring order: basket 0 has been taken over again.
  ASSERT_NO_FATAL_FAILURE(Lay(3, {{0, At(9, 0, 0)}, kNext, {0, At(10, 0, 1)}, {1, At(10, 0, 2)},
                                  kNext, {0, At(10, 0, 3)}, {1, At(10, 0, 4)}, kNext,
                                  {0, At(10, 0, 5)}, {1, At(10, 0, 6)}}, true));
  EXPECT_EQ(Step(-1), "#6");  // nothing to step from before a seek

  ASSERT_EQ(Seek(-1, At(10, 0, 3), true), "c0 10:00:03");
  for (const char* expected : {"c1 10:00:04", "c0 10:00:05", "c1 10:00:06", "#9", "#9"}) {
    EXPECT_EQ(Step(-1), expected);
  }
  for (const char* expected : {"c0 10:00:05", "c1 10:00:04", "c0 10:00:03", "c1 10:00:02",
                               "c0 10:00:01", "#10", "#10"}) {
    EXPECT_EQ(Step(-1, false), expected);
  }
  EXPECT_EQ(Step(-1), "c1 10:00:02");
  EXPECT_EQ(player.m_stLastRead.wSecond, 2);

  ASSERT_EQ(Seek(-1, At(10, 0, 4), true), "c1 10:00:04");
  EXPECT_EQ(Step(-1, false), "c0 10:00:03");  // no chunk comes twice
  EXPECT_EQ(Step(16), "#7");
  EXPECT_EQ(Step(-2), "#7");
  player.SetExit(1);
  EXPECT_EQ(Step(-1), "#7");
  player.SetExit(0);

  // A one-channel walk takes a message after each node it passes over.
  int messages = 0;
  molra::platform::SetMessageHook([&] { ++messages; });
  ASSERT_EQ(Seek(-1, At(10, 0, 1), true), "c0 10:00:01");
  EXPECT_EQ(Step(1), "c1 10:00:02");
  EXPECT_EQ(Step(1), "c1 10:00:04");
  EXPECT_EQ(Step(0, false), "c0 10:00:03");
  EXPECT_EQ(Step(0, false), "c0 10:00:01");
  EXPECT_EQ(messages, 2);
  EXPECT_EQ(Step(5), "#9");
  EXPECT_EQ(messages, 2 + 5);
  // A cancel from a message step ends the walk where it stands.
  ASSERT_EQ(Seek(-1, At(10, 0, 1), true), "c0 10:00:01");
  molra::platform::SetMessageHook([&] { player.SetExit(1); });
  EXPECT_EQ(Step(5), "#6");
  player.SetExit(0);
  molra::platform::SetMessageHook(nullptr);
  EXPECT_EQ(Step(-1), "c0 10:00:03");
}

TEST_F(StepTest, EmptyChunksPassButOnABackwardEntry) {
  ASSERT_NO_FATAL_FAILURE(Lay(2, {{2, At(10, 0, 1), false, 0}, kNext, {2, At(10, 0, 2), false, 0},
                                  {2, At(10, 0, 3)}, {0, At(10, 0, 4)}}, true));
  ASSERT_EQ(Seek(-1, At(10, 0, 1), true), "c2 10:00:01");
  EXPECT_EQ(Step(2), "c2 10:00:02");  // entered forward
  EXPECT_EQ(Step(2), "c2 10:00:03");
  EXPECT_EQ(Step(2, false), "c2 10:00:02");  // inside the basket
  EXPECT_EQ(Step(2, false), "#6");           // entered backward
  EXPECT_NE(DefectLog().find("[11-18, 10:0:1]:[0]"), std::string::npos);
  ASSERT_EQ(Seek(-1, At(10, 0, 2), true), "c2 10:00:02");
  EXPECT_EQ(Step(-1, false), "c2 10:00:01");
}

TEST_F(StepTest, AFailedSeekLeavesTheReaderOnTheLastNodeItHandedOut) {
  // Key frames in two baskets, with a second missing inside each.
  ASSERT_NO_FATAL_FAILURE(Lay(2, {{0, At(10, 0, 1), true}, {1, At(10, 0, 3), true}, kNext,
                                  {0, At(10, 0, 5), true}, {1, At(10, 0, 7), true}}, true));
  // The cursor keeps its offset also where the failed seek opened another
  // basket: the step goes on from that offset there.
  const struct {
    WORD found, missing;  // the seconds of a seek that finds, then of one that fails
    const char* after[3];  // a step on, a step back, a skip
  } rows[] = {
      {3, 2, {"c0 10:00:05", "c0 10:00:01", "c0 10:00:05"}},   // the same basket
      {1, 6, {"c1 10:00:07", "c1 10:00:03", "c1 10:00:07"}},   // another basket
      {3, 40, {"c0 10:00:05", "c0 10:00:01", "c0 10:00:05"}},  // no basket
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.found << " then " << row.missing);
    for (int move = 0; move < 3; ++move) {
      ASSERT_NE(Seek(-1, At(10, 0, row.found), true), "#6");
      ASSERT_EQ(Seek(-1, At(10, 0, row.missing), true), "#6");
      EXPECT_EQ(move == 0 ? Step(-1) : move == 1 ? Step(-1, false) : Skip(1), row.after[move]);
    }
  }
}

}  // namespace
}  // namespace molra_test
