// Where the store's drive-letter paths lie on a POSIX file system.
#pragma once

#include <string>

namespace molra {
namespace platform {

// Maps "X:\dir\name" to a path below the root of drive X. Backslashes and
// slashes both separate. Each component takes the case of an existing
// entry that matches it case-insensitively, so "c:\FSDIR" and "C:\fsdir"
// are one directory; a component that matches nothing keeps the case it
// was given; "." is passed over and ".." stops at the drive's root. The
// drive's root directory is made if absent. False, with the last error
// kErrorPathNotFound, for a path that does not begin with a drive letter.
bool ResolvePath(const char* path, std::string* real);

// True when `name` matches `pattern` ('*' any run, '?' one character),
// ignoring case.
bool MatchesPattern(const char* pattern, const char* name);

}  // namespace platform
}  // namespace molra
