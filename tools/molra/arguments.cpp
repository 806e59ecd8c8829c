#include "arguments.h"

#include <cctype>

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

}  // namespace molra_tools
