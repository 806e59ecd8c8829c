// The check of a retention time in days, shared by the molra command and
// the demo host so that both refuse the same texts.
#pragma once

#include <climits>
#include <string>

namespace molra_tools {

// Why `text` is no retention time in days, or "" when it is one: decimal
// digits only (no sign, no hex, no blanks), at least 1, and no more than
// the store's unsigned int holds.
inline std::string RetentionDaysProblem(const std::string& text) {
  if (text.empty()) return "the number of days is empty";
  unsigned long long value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return "'" + text + "' is not a whole number of days";
    value = value * 10 + static_cast<unsigned>(c - '0');
    if (value > UINT_MAX) return "'" + text + "' days is more than the store can count";
  }
  if (value == 0) return "a retention time of 0 days would erase everything";
  return "";
}

// The days of a text that RetentionDaysProblem accepted.
inline unsigned RetentionDays(const std::string& text) {
  return static_cast<unsigned>(std::stoul(text));
}

}  // namespace molra_tools
