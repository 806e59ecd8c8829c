#include "arguments.h"

#include <cctype>
#include <cstdlib>

#include "utc_time.h"

namespace molra_tools {

namespace {

bool AllDigits(const std::string& text) {
  if (text.empty()) return false;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

bool IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysInMonth(int year, int month) {
  static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

}  // namespace

std::string ParseDriveCount(const std::string& text, DriveCount* out) {
  const std::string problem = "'" + text + "' is no drive letter and count such as D:100";
  if (text.size() < 3 || text[1] != ':' || !std::isalpha(static_cast<unsigned char>(text[0]))) {
    return problem;
  }
  const std::string count = text.substr(2);
  // Ten digits at most, so that the value below cannot overflow.
  if (!AllDigits(count) || count.size() > 10) return problem;
  const long long value = std::stoll(count);
  if (value < 1) return "'" + text + "': a drive needs at least 1 basket";
  if (value > 0x7FFFFFFF) return "'" + text + "': too many baskets";
  out->letter = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  out->count = static_cast<LONG>(value);
  return "";
}

std::string ParseDay(const std::string& text, Day* out) {
  const std::string problem = "'" + text + "' is not a day YYYY-MM-DD";
  if (text.size() != 10 || text[4] != '-' || text[7] != '-' || !AllDigits(text.substr(0, 4)) ||
      !AllDigits(text.substr(5, 2)) || !AllDigits(text.substr(8, 2))) {
    return problem;
  }
  Day day{std::stoi(text.substr(0, 4)), std::stoi(text.substr(5, 2)), std::stoi(text.substr(8, 2))};
  if (day.year < 1 || day.month < 1 || day.month > 12 || day.day < 1 ||
      day.day > DaysInMonth(day.year, day.month)) {
    return "'" + text + "' is no day of the calendar";
  }
  *out = day;
  return "";
}

std::string ParseUtcTime(const std::string& text, long long* out) {
  const std::string problem =
      "'" + text + "' is not a UTC time YYYY-MM-DD HH:MM:SS (or YYYY-MM-DDTHH:MM:SS)";
  if (text.size() < 19 || (text[10] != ' ' && text[10] != 'T') || text[13] != ':' ||
      text[16] != ':' || !AllDigits(text.substr(11, 2)) || !AllDigits(text.substr(14, 2)) ||
      !AllDigits(text.substr(17, 2))) {
    return problem;
  }
  int milliseconds = 0;
  if (text.size() > 19) {
    const std::string fraction = text.substr(20);
    if (text[19] != '.' || fraction.size() > 3 || !AllDigits(fraction)) return problem;
    milliseconds = std::stoi((fraction + "00").substr(0, 3));
  }
  Day day;
  if (!ParseDay(text.substr(0, 10), &day).empty()) return problem;
  const int hour = std::stoi(text.substr(11, 2));
  const int minute = std::stoi(text.substr(14, 2));
  const int second = std::stoi(text.substr(17, 2));
  if (hour > 23 || minute > 59 || second > 59) return "'" + text + "' is no time of the day";
  SYSTEMTIME stamp{};
  stamp.wYear = static_cast<WORD>(day.year);
  stamp.wMonth = static_cast<WORD>(day.month);
  stamp.wDay = static_cast<WORD>(day.day);
  stamp.wHour = static_cast<WORD>(hour);
  stamp.wMinute = static_cast<WORD>(minute);
  stamp.wSecond = static_cast<WORD>(second);
  stamp.wMilliseconds = static_cast<WORD>(milliseconds);
  *out = MillisecondsOf(stamp);
  return "";
}

std::string ParseFrameRate(const std::string& text, double* out) {
  const std::string problem = "'" + text + "' is no frame rate above 0 and at most 1000";
  bool point = false, digit = false;
  for (const char c : text) {
    if (c == '.' && !point) {
      point = true;
    } else if (c >= '0' && c <= '9') {
      digit = true;
    } else {
      return problem;
    }
  }
  if (!digit) return problem;
  const double value = std::strtod(text.c_str(), nullptr);
  if (!(value > 0) || value > 1000) return problem;
  *out = value;
  return "";
}

std::string ParseVideoFile(const std::string& text, std::string* muxer) {
  static const struct {
    const char* ending;
    const char* muxer;
  } kMuxers[] = {{".mp4", "mp4"}, {".mov", "mov"}, {".mkv", "matroska"}, {".ts", "mpegts"}};
  std::string lower = text;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const auto& entry : kMuxers) {
    const std::string ending = entry.ending;
    if (lower.size() > ending.size() &&
        lower.compare(lower.size() - ending.size(), ending.size(), ending) == 0) {
      *muxer = entry.muxer;
      return "";
    }
  }
  return "'" + text + "' does not end in .mp4, .mov, .mkv or .ts";
}

}  // namespace molra_tools
