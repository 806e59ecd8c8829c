#include "platform/posix_zone_rule.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/clock.h"

namespace molra {
namespace platform {
namespace {

constexpr std::int64_t kSecondsPerDay = 86400;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

std::int64_t FloorDiv(std::int64_t a, std::int64_t b) {
  const std::int64_t q = a / b;
  return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

// 0 = Sunday; day 0 (1970-01-01) was a Thursday.
int Weekday(std::int64_t day) { return static_cast<int>(((day % 7) + 11) % 7); }

// One change of the rule, as written.
struct Change {
  enum Kind { kJulianNoLeap, kZeroBased, kMonthWeek } kind = kMonthWeek;
  int day = 0;  // Jn or n
  int month = 0;
  int week = 0;
  int weekday = 0;
  std::int64_t seconds = 2 * 3600;  // local time of day of the change
  std::string text;
};

class Reader {
 public:
  explicit Reader(const std::string& text) : text_(text) {}

  bool AtEnd() const { return pos_ >= text_.size(); }
  char Peek() const { return AtEnd() ? '\0' : text_[pos_]; }
  size_t Pos() const { return pos_; }
  std::string Since(size_t from) const { return text_.substr(from, pos_ - from); }

  bool Take(char c) {
    if (AtEnd() || text_[pos_] != c) return false;
    ++pos_;
    return true;
  }

  // 1 to maxDigits digits, worth at most `max`. A digit left over is
  // refused by whatever is read next.
  bool Number(int maxDigits, int max, int* value) {
    int digits = 0;
    *value = 0;
    while (!AtEnd() && IsDigit(text_[pos_]) && digits < maxDigits) {
      *value = *value * 10 + (text_[pos_++] - '0');
      ++digits;
    }
    return digits > 0 && *value <= max;
  }

  // A name of three or more letters, or <...> of letters, digits and signs.
  bool Name(std::string* name) {
    const size_t start = pos_;
    if (Take('<')) {
      while (!AtEnd() && (IsLetter(Peek()) || IsDigit(Peek()) || Peek() == '+' || Peek() == '-')) {
        ++pos_;
      }
      *name = text_.substr(start + 1, pos_ - start - 1);
      return Take('>') && name->size() >= 3;
    }
    while (!AtEnd() && IsLetter(Peek())) ++pos_;
    *name = text_.substr(start, pos_ - start);
    return name->size() >= 3;
  }

  // [+-]hh[:mm[:ss]] in seconds.
  bool Clock(int maxHours, std::int64_t* seconds) {
    const bool negative = Take('-');
    if (!negative) Take('+');
    int hours = 0;
    int minutes = 0;
    int secs = 0;
    if (!Number(3, maxHours, &hours)) return false;
    if (Take(':')) {
      if (!Number(2, 59, &minutes)) return false;
      if (Take(':') && !Number(2, 59, &secs)) return false;
    }
    *seconds = (std::int64_t{hours} * 60 + minutes) * 60 + secs;
    if (negative) *seconds = -*seconds;
    return true;
  }

  bool ChangeRule(Change* change) {
    const size_t start = pos_;
    int first = 0;
    int second = 0;
    if (Take('J')) {
      change->kind = Change::kJulianNoLeap;
      if (!Number(3, 365, &change->day) || change->day < 1) return false;
    } else if (IsDigit(Peek())) {
      change->kind = Change::kZeroBased;
      if (!Number(3, 365, &change->day)) return false;
    } else if (Take('M')) {
      change->kind = Change::kMonthWeek;
      if (!Number(2, 12, &change->month) || change->month < 1 || !Take('.') ||
          !Number(1, 5, &first) || first < 1 || !Take('.') || !Number(1, 6, &second)) {
        return false;
      }
      change->week = first;
      change->weekday = second;
    } else {
      return false;
    }
    if (Take('/') && !Clock(167, &change->seconds)) return false;
    change->text = Since(start);
    return true;
  }

 private:
  const std::string& text_;
  size_t pos_ = 0;
};

// The day (days since 1970-01-01) a change falls on in `year`.
std::int64_t ChangeDay(const Change& change, int year) {
  const std::int64_t jan1 = DayNumber(year, 1, 1);
  const bool leap = DayNumber(year + 1, 1, 1) - jan1 == 366;
  switch (change.kind) {
    case Change::kJulianNoLeap:
      return jan1 + change.day - 1 + (leap && change.day >= 60 ? 1 : 0);
    case Change::kZeroBased:
      return jan1 + change.day;
    case Change::kMonthWeek:
      break;
  }
  const std::int64_t first = DayNumber(year, change.month, 1);
  const std::int64_t next =
      change.month == 12 ? DayNumber(year + 1, 1, 1) : DayNumber(year, change.month + 1, 1);
  std::int64_t day = first + (change.weekday - Weekday(first) + 7) % 7 + 7 * (change.week - 1);
  while (day >= next) day -= 7;
  return day;
}

// The local moment, in seconds since 1970-01-01 local, of a change in `year`.
std::int64_t ChangeMoment(const Change& change, int year) {
  return ChangeDay(change, year) * kSecondsPerDay + change.seconds;
}

// The recurring date of a change: exact when it is a Sunday rule at a
// whole hour of the day, otherwise fitted to `year` with a line in `notes`.
SYSTEMTIME ChangeDate(const Change& change, int year, std::vector<std::string>* notes) {
  SYSTEMTIME date{};
  if (change.kind == Change::kMonthWeek && change.weekday == 0 && change.seconds >= 0 &&
      change.seconds <= 23 * 3600 && change.seconds % 3600 == 0) {
    date.wMonth = static_cast<WORD>(change.month);
    date.wDay = static_cast<WORD>(change.week);
    date.wHour = static_cast<WORD>(change.seconds / 3600);
    return date;
  }
  // The store counts from a Sunday of the month and runs the hours on past
  // midnight, so hold the change as the Sunday before it plus the hours.
  const std::int64_t hourIndex = FloorDiv(ChangeMoment(change, year), 3600);
  const std::int64_t day = FloorDiv(hourIndex, 24);
  const std::int64_t hour = hourIndex - day * 24;
  std::int64_t sunday = day - Weekday(day);
  while (sunday >= DayNumber(year + 1, 1, 1)) sunday -= 7;
  std::string how;
  if (sunday >= DayNumber(year, 1, 1)) {
    const SYSTEMTIME stamp = UnixMillisToStamp(sunday * kSecondsPerDay * 1000);
    date.wMonth = stamp.wMonth;
    date.wDay = static_cast<WORD>((stamp.wDay - 1) / 7 + 1);
    date.wHour = static_cast<WORD>((day - sunday) * 24 + hour);
    how = change.seconds % 3600 != 0 ? "minutes dropped, in " : "exact in ";
  } else {
    // Early January: the Sunday lies in the year before, out of reach.
    date.wMonth = 1;
    date.wDay = 1;
    date.wHour = static_cast<WORD>(hour);
    how = "approximate in ";
  }
  notes->push_back("zone change \"" + change.text + "\" held as Sunday " +
                   std::to_string(date.wDay) + " of month " + std::to_string(date.wMonth) +
                   " plus " + std::to_string(date.wHour) + " hours, " + how +
                   std::to_string(year));
  return date;
}

// Minutes west of an offset in seconds; seconds are dropped with a note.
LONG OffsetMinutes(std::int64_t seconds, const std::string& text,
                   std::vector<std::string>* notes) {
  if (seconds % 60 != 0) {
    notes->push_back("zone offset \"" + text + "\" held as " + std::to_string(seconds / 60) +
                     " minutes, seconds dropped");
  }
  return static_cast<LONG>(seconds / 60);
}

void SetName(WCHAR* out, const std::string& name) {
  size_t i = 0;
  for (; i < 31 && i < name.size(); ++i) out[i] = static_cast<unsigned char>(name[i]);
  std::fill(out + i, out + 32, WCHAR{0});
}

std::uint32_t Be32(const std::string& bytes, size_t at) {
  std::uint32_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

// Header counts of one data block of a zone file.
struct Counts {
  std::uint64_t isut = 0;
  std::uint64_t isstd = 0;
  std::uint64_t leap = 0;
  std::uint64_t time = 0;
  std::uint64_t type = 0;
  std::uint64_t chars = 0;
};

constexpr size_t kHeaderSize = 44;

// The header at `at` and the end of its data block, both inside `bytes`.
bool ReadBlock(const std::string& bytes, size_t at, size_t timeSize, char* version,
               Counts* counts, size_t* end) {
  if (at > bytes.size() || bytes.size() - at < kHeaderSize || bytes.compare(at, 4, "TZif") != 0) {
    return false;
  }
  *version = bytes[at + 4];
  counts->isut = Be32(bytes, at + 20);
  counts->isstd = Be32(bytes, at + 24);
  counts->leap = Be32(bytes, at + 28);
  counts->time = Be32(bytes, at + 32);
  counts->type = Be32(bytes, at + 36);
  counts->chars = Be32(bytes, at + 40);
  // Counts below 2^32 keep this sum far from overflow.
  const std::uint64_t size = counts->time * (timeSize + 1) + counts->type * 6 + counts->chars +
                             counts->leap * (timeSize + 4) + counts->isstd + counts->isut;
  if (size > bytes.size() - at - kHeaderSize) return false;
  *end = at + kHeaderSize + static_cast<size_t>(size);
  return true;
}

// The standard time the data block at `data` ends in: the type of the last
// transition that is not daylight time, else the first standard type.
bool LastStandardTime(const std::string& bytes, size_t data, size_t timeSize,
                      const Counts& counts, LONG* bias, std::string* name) {
  if (counts.type == 0) return false;
  const size_t indices = data + static_cast<size_t>(counts.time * timeSize);
  const size_t types = indices + static_cast<size_t>(counts.time);
  const size_t chars = types + static_cast<size_t>(counts.type * 6);
  auto isDaylight = [&](size_t type) { return bytes[types + type * 6 + 4] != 0; };
  for (size_t i = 0; i < counts.time; ++i) {
    if (static_cast<unsigned char>(bytes[indices + i]) >= counts.type) return false;
  }
  size_t chosen = counts.type;
  for (size_t i = static_cast<size_t>(counts.time); i-- > 0 && chosen == counts.type;) {
    const size_t type = static_cast<unsigned char>(bytes[indices + i]);
    if (!isDaylight(type)) chosen = type;
  }
  for (size_t type = 0; type < counts.type && chosen == counts.type; ++type) {
    if (!isDaylight(type)) chosen = type;
  }
  if (chosen == counts.type) chosen = 0;
  const size_t abbr = static_cast<unsigned char>(bytes[types + chosen * 6 + 5]);
  if (abbr >= counts.chars) return false;
  const size_t charsEnd = chars + static_cast<size_t>(counts.chars);
  size_t stop = chars + abbr;
  while (stop < charsEnd && bytes[stop] != '\0') ++stop;
  *name = bytes.substr(chars + abbr, stop - chars - abbr);
  const std::int64_t utoff = static_cast<std::int32_t>(Be32(bytes, types + chosen * 6));
  *bias = static_cast<LONG>(-utoff / 60);
  return true;
}

}  // namespace

bool ParsePosixZoneRule(const std::string& text, int year, TIME_ZONE_INFORMATION* zone,
                        std::string* note) {
  if (zone == nullptr) return false;
  // Beyond the range of a stamp's year there is nothing to fit.
  year = std::clamp(year, 1, 65535);

  Reader reader(text);
  std::string stdName;
  std::int64_t stdSeconds = 0;
  if (!reader.Name(&stdName)) return false;
  const size_t stdOffsetAt = reader.Pos();
  if (!reader.Clock(24, &stdSeconds)) return false;
  const std::string stdOffsetText = reader.Since(stdOffsetAt);

  std::string dstName;
  std::int64_t dstSeconds = 0;
  std::string dstOffsetText;  // empty when the offset is left to default
  Change start;
  Change end;
  const bool hasDaylight = !reader.AtEnd();
  if (hasDaylight) {
    if (!reader.Name(&dstName)) return false;
    const char c = reader.Peek();
    if (c == '+' || c == '-' || IsDigit(c)) {
      const size_t dstOffsetAt = reader.Pos();
      if (!reader.Clock(24, &dstSeconds)) return false;
      dstOffsetText = reader.Since(dstOffsetAt);
    }
    if (reader.AtEnd()) {
      // Without a rule of its own, the long-standing default applies.
      const std::string fallback = ",M3.2.0,M11.1.0";
      Reader rule(fallback);
      rule.Take(',');
      rule.ChangeRule(&start);
      rule.Take(',');
      rule.ChangeRule(&end);
    } else if (!reader.Take(',') || !reader.ChangeRule(&start) || !reader.Take(',') ||
               !reader.ChangeRule(&end) || !reader.AtEnd()) {
      return false;
    }
  }

  std::vector<std::string> notes;
  TIME_ZONE_INFORMATION out;
  std::memset(&out, 0, sizeof out);
  out.Bias = OffsetMinutes(stdSeconds, stdOffsetText, &notes);
  SetName(out.StandardName, stdName);
  if (hasDaylight) {
    const LONG dstBias =
        !dstOffsetText.empty() ? OffsetMinutes(dstSeconds, dstOffsetText, &notes) : out.Bias - 60;
    if (ChangeMoment(start, year) <= DayNumber(year, 1, 1) * kSecondsPerDay &&
        ChangeMoment(end, year) >= DayNumber(year + 1, 1, 1) * kSecondsPerDay) {
      // Daylight time the whole year round is a zone without changes.
      out.Bias = dstBias;
      SetName(out.StandardName, dstName);
      notes.push_back("zone \"" + text + "\" keeps daylight time all year, held as " +
                      std::to_string(dstBias) + " minutes west without changes");
    } else if (dstBias > out.Bias) {
      // Daylight time behind standard time (a winter "daylight" time): the
      // same clock as a zone whose standard time is the winter one and
      // whose summer time runs an hour ahead, which is how the recurring
      // form and its daylight window expect a zone to be.
      const LONG summerBias = out.Bias;
      out.Bias = dstBias;
      out.DaylightBias = summerBias - dstBias;
      SetName(out.StandardName, dstName);
      SetName(out.DaylightName, stdName);
      out.DaylightDate = ChangeDate(end, year, &notes);
      out.StandardDate = ChangeDate(start, year, &notes);
    } else {
      SetName(out.DaylightName, dstName);
      out.DaylightBias = dstBias - out.Bias;
      out.DaylightDate = ChangeDate(start, year, &notes);
      out.StandardDate = ChangeDate(end, year, &notes);
    }
  }

  std::memcpy(zone, &out, sizeof out);
  if (note != nullptr) {
    note->clear();
    for (const std::string& line : notes) *note += (note->empty() ? "" : "; ") + line;
  }
  return true;
}

bool ReadZoneFileFooter(const std::string& bytes, std::string* footer, LONG* fixedBias,
                        std::string* fixedName) {
  char version = 0;
  Counts counts;
  size_t end = 0;
  if (!ReadBlock(bytes, 0, 4, &version, &counts, &end)) return false;
  size_t data = kHeaderSize;
  size_t timeSize = 4;
  std::string rule;
  if (version != '\0') {
    if (version < '2' || version > '9') return false;
    // Version 2 and later repeat the data with 64-bit times, then the rule.
    data = end + kHeaderSize;
    timeSize = 8;
    char again = 0;
    if (!ReadBlock(bytes, end, timeSize, &again, &counts, &end)) return false;
    if (end >= bytes.size() || bytes[end] != '\n') return false;
    const size_t close = bytes.find('\n', end + 1);
    if (close == std::string::npos) return false;
    rule = bytes.substr(end + 1, close - end - 1);
  }
  LONG bias = 0;
  std::string name;
  if (!LastStandardTime(bytes, data, timeSize, counts, &bias, &name)) return false;
  if (footer != nullptr) *footer = rule;
  if (fixedBias != nullptr) *fixedBias = bias;
  if (fixedName != nullptr) *fixedName = name;
  return true;
}

}  // namespace platform
}  // namespace molra
