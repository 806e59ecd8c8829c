// A host that includes the store's header before <windows.h>: the system's
// calls take the store's records, and std::min and std::max stay usable.
#include "molra/molra.h"

#include <windows.h>

#include <algorithm>
#include <cstdint>

#include <gtest/gtest.h>

namespace {

TEST(Win32HeadersLastTest, TheStoresRecordsGoStraightIntoTheSystem) {
  SYSTEMTIME now{};
  ::GetSystemTime(&now);
  molra::platform::SetClock(&now);
  FILETIME ticks;  // 100 ns steps since 1601
  ASSERT_TRUE(::SystemTimeToFileTime(&now, &ticks));
  const std::int64_t seconds =
      static_cast<std::int64_t>((std::uint64_t{ticks.dwHighDateTime} << 32 | ticks.dwLowDateTime) /
                                10000000) - 11644473600;
  EXPECT_EQ(CTime::GetCurrentTime().GetTime(), std::max<std::int64_t>(seconds, 0));
  molra::platform::SetClock(nullptr);
}

}  // namespace
