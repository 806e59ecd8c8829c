// Matching a name against a pattern of '*' and '?', the way the system's
// directory listing does, for both backends.
#pragma once

namespace molra {
namespace platform {

// `same` compares two characters as the backend's names compare (in any
// case). Iterative, with one backtrack point.
template <typename Char, typename Same>
bool MatchWildcard(const Char* pattern, const Char* name, Same same) {
  const Char* star = nullptr;
  const Char* resume = nullptr;
  while (*name) {
    if (*pattern == Char('*')) {
      star = pattern++;
      resume = name;
    } else if (*pattern == Char('?') || (*pattern && same(*pattern, *name))) {
      ++pattern;
      ++name;
    } else if (star) {
      pattern = star + 1;
      name = ++resume;
    } else {
      return false;
    }
  }
  while (*pattern == Char('*')) ++pattern;
  return *pattern == Char('\0');
}

}  // namespace platform
}  // namespace molra
