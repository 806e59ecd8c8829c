// The system's zone record into the recurring form the store converts with.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "platform/win32_machine_zone.h"

namespace {

namespace platform = molra::platform;

TIME_ZONE_INFORMATION Record(const SYSTEMTIME& daylight, const SYSTEMTIME& standard) {
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = -120;
  zone.DaylightBias = -60;
  std::memcpy(zone.StandardName, L"Zone Standard", sizeof L"Zone Standard");
  zone.DaylightDate = daylight;
  zone.StandardDate = standard;
  return zone;
}

std::string Date(const SYSTEMTIME& d) {
  return std::to_string(d.wMonth) + "." + std::to_string(d.wDay) + "." + std::to_string(d.wHour) +
         ((d.wYear | d.wDayOfWeek | d.wMinute | d.wSecond | d.wMilliseconds) ? "!" : "");
}

TEST(Win32ZoneTest, SundayRulesPassAndOthersAreFittedToTheYear) {
  const SYSTEMTIME lastSundayOfOctober{0, 10, 0, 5, 2, 0, 0, 0};
  const struct { SYSTEMTIME daylight; const char *fitted, *note; } rows[] = {
      {{0, 3, 0, 5, 3, 0, 0, 0}, "3.5.3", ""},
      // The last Friday of March 2010 (the 26th): five days after the 3rd Sunday.
      {{0, 3, 5, 5, 2, 0, 0, 0}, "3.3.122", "exact in 2010"},
      {{2010, 3, 0, 26, 2, 0, 0, 0}, "3.3.122", "exact in 2010"},  // a fixed date
      {{0, 3, 0, 5, 2, 30, 0, 0}, "3.4.2", "minutes dropped"}};  // the 28th
  for (const auto& row : rows) {
    const TIME_ZONE_INFORMATION reported = Record(row.daylight, lastSundayOfOctober);
    TIME_ZONE_INFORMATION zone;
    std::string note = "stale";
    platform::FitZoneRecord(reported, 2010, &zone, &note);
    EXPECT_EQ(Date(zone.DaylightDate) + " " + Date(zone.StandardDate),
              std::string(row.fitted) + " 10.5.2");
    EXPECT_TRUE(*row.note ? note.find(row.note) != std::string::npos : note.empty()) << note;
    EXPECT_EQ(std::make_tuple(zone.Bias, zone.DaylightBias), std::make_tuple(-120L, -60L));
    EXPECT_EQ(std::memcmp(zone.StandardName, reported.StandardName, sizeof zone.StandardName), 0);
  }
  // No rule at all: the record as it came.
  TIME_ZONE_INFORMATION zone;
  std::string note;
  platform::FitZoneRecord(Record({}, {}), 2010, &zone, &note);
  const TIME_ZONE_INFORMATION none = Record({}, {});
  EXPECT_EQ(std::memcmp(&zone, &none, sizeof zone), 0);
}

}  // namespace
