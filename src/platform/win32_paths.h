// Where the store's drive-letter paths lie on Windows.
#pragma once

#include <string>

namespace molra {
namespace platform {

// Maps "X:\dir\name" to the full path below the root of drive X, in the
// long form that the wide calls take beyond MAX_PATH ("\\?\D:\root\dir\name",
// "\\?\UNC\server\share\dir\name"). Backslashes and slashes both separate;
// "." is passed over and ".." stops at the drive's root. A relative root
// counts from the current directory; a root that does not exist yet is
// made. False, with the last error kErrorPathNotFound, for a path that
// does not begin with a drive letter.
bool ResolvePath(const char* path, std::wstring* real);

// UTF-8 to UTF-16 and back: drive roots and names found on disk.
std::wstring Widen(const std::string& text);
std::string Narrow(const std::wstring& text);

// True when `name` matches `pattern` ('*' any run, '?' one character),
// ignoring case.
bool MatchesPattern(const wchar_t* pattern, const wchar_t* name);

}  // namespace platform
}  // namespace molra
