// The machine's zones through the store against the C library's own
// reading of the same zones, hour by hour through a whole year.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <ctime>
#include <string>

#include "molra/molra.h"
#include "platform/clock.h"
#include "support/temp_drives.h"

namespace {

class ZoneOracleTest : public molra_test::TempDrives {
 protected:
  void SetUp() override {
    TempDrives::SetUp();
    const char* tz = std::getenv("TZ");
    m_hadTz = tz != nullptr;
    if (tz) m_oldTz = tz;
    molra::platform::SetTimeZone(nullptr);  // the machine's zone, as TZ names it
    const std::time_t now = std::time(nullptr);
    std::tm utc;
    gmtime_r(&now, &utc);
    m_year = utc.tm_year + 1900;
  }
  void TearDown() override {
    if (m_hadTz) {
      setenv("TZ", m_oldTz.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
    TempDrives::TearDown();
  }

  // Hours of the year at which the store's local reading (flag 1) and
  // localtime_r differ; the first one in `first`.
  int Mismatches(const char* zone, std::string* first) {
    setenv("TZ", zone, 1);
    tzset();
    SYSTEMTIME mid{static_cast<WORD>(m_year), 7, 0, 1, 12, 0, 0, 0};
    molra::platform::SetClock(&mid);
    CMOLRA store;
    const SYSTEMTIME jan1{static_cast<WORD>(m_year), 1, 0, 1, 0, 0, 0, 0};
    const std::int64_t start = molra::platform::StampToUnixMillis(jan1) / 1000;
    int count = 0;
    for (std::int64_t t = start; t < start + 366 * 86400; t += 3600) {
      SYSTEMTIME stamp = molra::platform::UnixMillisToStamp(t * 1000);
      store.ChangeSystemToLocalTime(stamp, 1);
      const std::time_t when = static_cast<std::time_t>(t);
      std::tm local;
      localtime_r(&when, &local);
      if (stamp.wYear != local.tm_year + 1900 || stamp.wMonth != local.tm_mon + 1 ||
          stamp.wDay != local.tm_mday || stamp.wHour != local.tm_hour ||
          stamp.wMinute != local.tm_min) {
        if (count++ == 0) {
          char text[96];
          std::snprintf(text, sizeof text, "at %lld: store %u-%u %02u:%02u, runtime %d-%d %02d:%02d",
                        static_cast<long long>(t), stamp.wMonth, stamp.wDay, stamp.wHour,
                        stamp.wMinute, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min);
          *first = text;
        }
      }
    }
    return count;
  }

  static bool HaveZone(const char* zone) {
    return FileExists(std::string("/usr/share/zoneinfo/") + zone);
  }

  int m_year = 0;
  bool m_hadTz = false;
  std::string m_oldTz;
};

TEST_F(ZoneOracleTest, RecurringZonesMatchTheRuntimeEveryHour) {
  const char* zones[] = {"America/New_York", "Europe/Berlin",   "Australia/Sydney",
                         "Asia/Tokyo",       "Asia/Kolkata",    "Pacific/Auckland",
                         "Europe/Dublin"};
  for (const char* zone : zones) {
    if (!HaveZone(zone)) GTEST_SKIP() << "no tz database entry for " << zone;
    std::string first;
    EXPECT_EQ(Mismatches(zone, &first), 0) << zone << " " << first;
  }
  // A rule given in TZ itself.
  std::string first;
  EXPECT_EQ(Mismatches("EST5EDT,M3.2.0,M11.1.0", &first), 0) << first;
  EXPECT_EQ(Mismatches("<+0545>-5:45", &first), 0) << first;
}

// Changes on other weekdays, at hours beyond the day or off the whole hour
// are fitted to the year the object was made in: in that year the store
// still reads every whole hour as the runtime does, and the status log
// says what was fitted.
TEST_F(ZoneOracleTest, FittedRulesMatchInTheirYearAndAreLogged) {
  std::filesystem::create_directories(Real('C', "fsdir"));
  const char* zones[] = {"Asia/Jerusalem", "America/Santiago", "America/Nuuk", "Africa/Cairo",
                         "Pacific/Chatham"};
  for (const char* zone : zones) {
    if (!HaveZone(zone)) GTEST_SKIP() << "no tz database entry for " << zone;
    std::string first;
    EXPECT_EQ(Mismatches(zone, &first), 0) << zone << " " << first;
  }
  // A half-hour daylight shift is judged at the window's grain of an hour:
  // the hour before the change already reads as daylight time.
  if (HaveZone("Australia/Lord_Howe")) {
    std::string first;
    EXPECT_EQ(Mismatches("Australia/Lord_Howe", &first), 1) << first;
  }
  const std::string log = ReadAll(Real('C', "fsdir/status.dat"));
  EXPECT_NE(log.find("M3.4.4/26"), std::string::npos) << log;  // the Jerusalem change
}

TEST_F(ZoneOracleTest, UnknownZoneFallsBackToUtcWithALine) {
  std::filesystem::create_directories(Real('C', "fsdir"));
  setenv("TZ", "No/Such_Zone", 1);
  CMOLRA store;
  EXPECT_EQ(store.GetTimeZoneInfo().Bias, 0);
  EXPECT_NE(ReadAll(Real('C', "fsdir/status.dat")).find("No/Such_Zone"), std::string::npos);
}

}  // namespace
