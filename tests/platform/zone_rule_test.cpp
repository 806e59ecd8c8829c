// Zone rules into the recurring zone record, and the rule ending a zone file.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <vector>

#include "platform/posix_zone_rule.h"

namespace {

namespace platform = molra::platform;

// Bias, daylight bias, names, then month.week.hour of start and end; '!'
// marks a field that has to be zero and is not. A rule refused must leave
// the record alone.
std::string Parsed(const char* rule, int year, std::string* note) {
  TIME_ZONE_INFORMATION z, before;
  std::memset(&z, 0x5A, sizeof z);
  before = z;
  if (!platform::ParsePosixZoneRule(rule, year, &z, note))
    return std::memcmp(&z, &before, sizeof z) ? "refused, record changed" : "refused";
  std::ostringstream out;
  out << z.Bias << ' ' << z.DaylightBias << ' ';
  for (const WCHAR* c = z.StandardName; *c != 0; ++c) out << static_cast<char>(*c);
  out << '/';
  for (const WCHAR* c = z.DaylightName; *c != 0; ++c) out << static_cast<char>(*c);
  for (const SYSTEMTIME& d : {z.DaylightDate, z.StandardDate}) {
    out << ' ' << d.wMonth << '.' << d.wDay << '.' << d.wHour;
    if ((d.wYear | d.wDayOfWeek | d.wMinute | d.wSecond | d.wMilliseconds) != 0) out << '!';
  }
  if (z.StandardBias != 0) out << " standard bias " << z.StandardBias;
  return out.str();
}

TEST(ZoneRuleTest, WholeRulesFillTheWholeRecordAndOthersLeaveItAlone) {
  const struct { const char* rule; int year; const char *zone, *note; } rows[] = {
      {"EST5EDT,M3.2.0,M11.1.0", 2026, "300 -60 EST/EDT 3.2.2 11.1.2", ""},
      {"EST5EDT", 2026, "300 -60 EST/EDT 3.2.2 11.1.2", ""},
      {"AEST-10AEDT,M10.1.0,M4.1.0/3", 2026, "-600 -60 AEST/AEDT 10.1.2 4.1.3", ""},
      {"<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", 2026, "-630 -30 +1030/+11 10.1.2 4.1.2", ""},
      {"IST-1GMT0,M10.5.0,M3.5.0/1", 2026, "0 -60 GMT/IST 3.5.1 10.5.2", ""},  // winter "daylight"
      {"JST-9", 2026, "-540 0 JST/ 0.0.0 0.0.0", ""},
      {"<+0545>-5:45", 2026, "-345 0 +0545/ 0.0.0 0.0.0", ""},
      {"<-0025>0:25:21", 2026, "25 0 -0025/ 0.0.0 0.0.0", "seconds dropped"},
      // 4th Thursday of March + 26 h: a Friday after the 4th Sunday in 2026, the 3rd in 2027.
      {"IST-2IDT,M3.4.4/26,M10.5.0", 2026, "-120 -60 IST/IDT 3.4.122 10.5.2", "122 hours, exact"},
      {"IST-2IDT,M3.4.4/26,M10.5.0", 2027, "-120 -60 IST/IDT 3.3.122 10.5.2", "exact in 2027"},
      {"<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45", 2026, "-765 -60 +1245/+1345 9.4.2 4.1.3",
       "minutes dropped"},
      {"<+0330>-3:30<+0430>,J79/24,J263/24", 2026, "-210 -60 +0330/+0430 3.3.144 9.3.24", "exact"},
      {"EST5EDT,M3.2.0/26,M11.1.0", 2026, "300 -60 EST/EDT 3.2.26 11.1.2", "exact"},
      // Ends in the next year's first week: held from this year's last Sunday.
      {"EST5EDT,M3.2.0,J365/167", 2026, "300 -60 EST/EDT 3.2.2 12.4.263", "exact"},
      {"<-01>1<+00>,J1/-3,M10.5.0", 2026, "60 -60 -01/+00 1.1.21 10.5.2", "approximate"},
      {"EST5EDT,0/0,J365/24", 2026, "240 0 EDT/ 0.0.0 0.0.0", "all year"}};
  std::string note;
  for (const auto& row : rows) {
    note = "stale";
    EXPECT_EQ(row.zone, Parsed(row.rule, row.year, &note)) << row.rule;
    EXPECT_TRUE(*row.note ? note.find(row.note) != std::string::npos : note.empty()) << note;
  }
  for (const char* rule :
       {"", "EST", "ES5", "<+05>", "<+0545-5:45", "EST5<EDT", "EST25", "EST5EDT,M3.2.0",
        "EST5EDT,", "EST5EDT,M13.1.0,M11.1.0", "EST5EDT,M3.6.0,M11.1.0", "EST5EDT,M3.2.7,M11.1.0",
        "EST5EDT,J0,J365", "EST5EDT,M3.2.0/168,M11.1.0", "EST5EDT,M3.2.0,M11.1.0x",
        "EST5EDT,M3.2.0,M11.1.0,", "JST-9 "})
    EXPECT_EQ("refused", Parsed(rule, 2026, &note)) << '"' << rule << '"';
}

void PutBe(std::string* out, std::uint64_t value, int bytes) {
  while (bytes-- > 0) out->push_back(static_cast<char>(value >> (8 * bytes)));
}

// A zone file of `version` whose transitions name types 0 EDT (daylight),
// 1 LMT (-4:56:02) and 2 EST.
std::string ZoneFile(char version, const std::vector<int>& transitions, const std::string& rule) {
  const std::int32_t utoffs[] = {-14400, -17762, -18000};
  std::string out;
  for (int timeSize : {4, 8}) {
    out += std::string("TZif") + version + std::string(15, '\0');
    for (const size_t count : std::vector<size_t>{0, 0, 0, transitions.size(), 3, 12})
      PutBe(&out, count, 4);
    for (size_t i = 0; i < transitions.size(); ++i) PutBe(&out, 1000 * i, timeSize);
    for (int type : transitions) PutBe(&out, static_cast<std::uint64_t>(type), 1);
    for (int i = 0; i < 3; ++i) {
      PutBe(&out, static_cast<std::uint32_t>(utoffs[i]), 4);
      out += {static_cast<char>(i == 0), static_cast<char>(4 * i)};
    }
    out += std::string("EDT\0LMT\0EST\0", 12);
    if (version == '\0') return out;
  }
  return out + "\n" + rule + "\n";
}

std::string Patched(std::string bytes, size_t at, const std::string& with) {
  return bytes.replace(at, with.size(), with);
}

// "rule/bias name" as read, or "refused"; every cut-off copy must be
// refused without a read past its end.
std::string ReadFooter(const std::string& bytes) {
  std::string footer, name;
  LONG bias = 0;
  for (size_t size = 0; size < bytes.size(); ++size)
    EXPECT_FALSE(platform::ReadZoneFileFooter(bytes.substr(0, size), &footer, &bias, &name));
  if (!platform::ReadZoneFileFooter(bytes, &footer, &bias, &name)) return "refused";
  return footer + "/" + std::to_string(bias) + " " + name;
}

TEST(ZoneRuleFileTest, HandBuiltFiles) {
  const std::string v2 = ZoneFile('2', {0}, "EST5EDT");
  const struct { std::string bytes; const char* read; } rows[] = {
      {ZoneFile('\0', {1, 2, 0, 2, 0}, ""), "/300 EST"},  // last standard transition
      {ZoneFile('\0', {}, ""), "/296 LMT"},               // first standard type
      {ZoneFile('2', {1, 0}, ""), "/296 LMT"},
      {ZoneFile('3', {1, 2, 0}, "EST5EDT"), "EST5EDT/300 EST"},
      {ZoneFile('\0', {3}, ""), "refused"},                               // no type 3
      {ZoneFile('1', {}, ""), "refused"},                                 // no such version
      {Patched(ZoneFile('\0', {}, ""), 44 + 6 + 5, "\x0c"), "refused"},   // LMT's name index
      {Patched(v2, 32, "\xff\xff\xff\xff"), "refused"},                   // transition count
      {Patched(v2, v2.size() - 9, " "), "refused"}};  // rule not on a line of its own
  for (const auto& row : rows) EXPECT_EQ(row.read, ReadFooter(row.bytes));
}

}  // namespace
