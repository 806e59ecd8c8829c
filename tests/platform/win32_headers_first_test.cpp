// A host that includes <windows.h> before the store's header: the system's
// records are the store's, and the system's macros leave the store's names
// alone (CTime::GetCurrentTime is no GetTickCount).
#include <windows.h>

#include "molra/molra.h"

#include <gtest/gtest.h>

namespace {

TEST(Win32HeadersFirstTest, SystemRecordsGoStraightIntoTheStore) {
  TIME_ZONE_INFORMATION zone{};
  ASSERT_NE(::GetTimeZoneInformation(&zone), TIME_ZONE_ID_INVALID);
  zone.Bias = -90;
  molra::platform::SetTimeZone(&zone);
  SYSTEMTIME now{2010, 11, 4, 18, 9, 30, 15, 250};
  molra::platform::SetClock(&now);
  EXPECT_EQ(CMOLRA().GetTimeZoneInfo().Bias, -90);
  EXPECT_EQ(CTime::GetCurrentTime().GetTime(), 1290072615);
  molra::platform::SetClock(nullptr);
  molra::platform::SetTimeZone(nullptr);
}

}  // namespace
