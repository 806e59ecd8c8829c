// The machine's zones through the store against the C library's own
// reading of the same zones, hour by hour through a whole year.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>

#include "molra/molra.h"
#include "platform/clock.h"
#include "support/temp_drives.h"

namespace {

#ifdef _WIN32
TEST(ZoneOracleTest, ReadsTheZoneThatTzNames) {
  GTEST_SKIP() << "TZ names no zone on Windows: the machine's zone is the system's record";
}
#else
namespace platform = molra::platform;

class ZoneOracleTest : public molra_test::TempDrives {
 protected:
  void SetUp() override {
    TempDrives::SetUp();
    if (const char* tz = std::getenv("TZ")) m_oldTz = tz;
    platform::SetTimeZone(nullptr);  // the machine's zone, as TZ names it
    std::filesystem::create_directories(Real('C', "fsdir"));
  }
  void TearDown() override {
    m_oldTz ? setenv("TZ", m_oldTz->c_str(), 1) : unsetenv("TZ");
    tzset();
    TempDrives::TearDown();
  }

  // Hours of this year at which the store's local reading (flag 1) and
  // localtime_r differ; the first one, with both offsets, in `first`.
  static int Mismatches(const char* zone, std::string* first) {
    setenv("TZ", zone, 1);
    tzset();
    const std::time_t now = std::time(nullptr);
    std::tm utc;
    gmtime_r(&now, &utc);
    const WORD year = static_cast<WORD>(utc.tm_year + 1900);
    SYSTEMTIME mid{year, 7, 0, 1, 12, 0, 0, 0};
    platform::SetClock(&mid);
    CMOLRA store;
    const std::int64_t start = platform::StampToUnixMillis({year, 1, 0, 1, 0, 0, 0, 0}) / 1000;
    int count = 0;
    for (std::int64_t t = start; t < start + 366 * 86400; t += 3600) {
      SYSTEMTIME stamp = platform::UnixMillisToStamp(t * 1000);
      store.ChangeSystemToLocalTime(stamp, 1);
      const std::time_t when = static_cast<std::time_t>(t);
      std::tm local;
      localtime_r(&when, &local);
      const std::int64_t mine = platform::StampToUnixMillis(stamp) / 1000 - t;
      const std::int64_t runtime = timegm(&local) - t;
      if (mine != runtime && count++ == 0) {
        *first = "at " + std::to_string(t) + ": store " + std::to_string(mine / 60) +
                 " min ahead of UTC, runtime " + std::to_string(runtime / 60);
      }
    }
    return count;
  }

  std::optional<std::string> m_oldTz;
};

// Zone files and rules given in TZ itself. Changes on other weekdays, at
// hours beyond the day or off the whole hour are fitted to the year the
// object was made in: in that year every whole hour still reads as the
// runtime reads it, and the status log says what was fitted. A half-hour
// shift is judged at the window's grain of an hour: the hour before the
// change already reads as daylight time.
TEST_F(ZoneOracleTest, ZonesMatchTheRuntimeEveryHourAndFittedRulesAreLogged) {
  const struct { const char* zone; int mismatches; } rows[] = {
      {"America/New_York", 0}, {"Europe/Berlin", 0}, {"Australia/Sydney", 0}, {"Asia/Tokyo", 0},
      {"Asia/Kolkata", 0}, {"Pacific/Auckland", 0}, {"Europe/Dublin", 0}, {"Asia/Jerusalem", 0},
      {"America/Santiago", 0}, {"America/Nuuk", 0}, {"Africa/Cairo", 0}, {"Pacific/Chatham", 0},
      {"Australia/Lord_Howe", 1}, {"EST5EDT,M3.2.0,M11.1.0", 0}, {"<+0545>-5:45", 0},
      {"AEST-10AEDT,M10.1.0,M4.1.0/3", 0}, {"<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", 1},
      {"IST-2IDT,M3.4.4/26,M10.5.0", 0}, {"<+0330>-3:30<+0430>,J79/24,J263/24", 0},
      {"<-03>3<-02>,M3.5.0/-2,M10.5.0/-1", 0}};
  for (const auto& row : rows) {
    if (std::strchr(row.zone, '/') && std::strchr(row.zone, ',') == nullptr &&
        !FileExists(std::string("/usr/share/zoneinfo/") + row.zone)) {
      GTEST_SKIP() << row.zone << " is not installed";
    }
    std::string first;
    EXPECT_EQ(Mismatches(row.zone, &first), row.mismatches) << row.zone << " " << first;
  }
  const std::string log = ReadAll(Real('C', "fsdir/status.dat"));
  EXPECT_NE(log.find("M3.4.4/26"), std::string::npos) << log;  // the Jerusalem change
}

TEST_F(ZoneOracleTest, UnknownZoneFallsBackToUtcWithALine) {
  setenv("TZ", "No/Such_Zone", 1);
  CMOLRA store;
  EXPECT_EQ(store.GetTimeZoneInfo().Bias, 0);
  EXPECT_NE(ReadAll(Real('C', "fsdir/status.dat")).find("No/Such_Zone"), std::string::npos);
}
#endif

}  // namespace
