#include "platform/posix_paths.h"

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <vector>

#include "platform/env.h"
#include "platform/settings.h"
#include "platform/wildcard.h"

namespace molra {
namespace platform {
namespace {

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

// Makes `dir` and its parents, like `mkdir -p`.
void MakeDirectories(const std::string& dir) {
  for (size_t i = 1; i <= dir.size(); ++i) {
    if (i == dir.size() || dir[i] == '/') {
      const std::string part = dir.substr(0, i);
      if (::mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) return;
    }
  }
}

// The name of the entry of `dir` that equals `component` but for case,
// with *exists true; `component` itself and false when there is none.
std::string MatchEntry(const std::string& dir, const std::string& component,
                       bool* exists) {
  struct stat st;
  *exists = true;
  const std::string exact = dir + "/" + component;
  if (::lstat(exact.c_str(), &st) == 0) return component;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (struct dirent* entry = ::readdir(d)) {
      if (::strcasecmp(entry->d_name, component.c_str()) == 0) {
        std::string found = entry->d_name;
        ::closedir(d);
        return found;
      }
    }
    ::closedir(d);
  }
  *exists = false;
  return component;
}

// `root` and the components of `rest` joined as they are spelled: the
// answer of a resolution in which every entry matches exactly. False for
// "." and "..", which the resolution treats component by component.
bool ExactPath(const std::string& root, const char* rest, std::string* joined) {
  *joined = root;
  for (const char* p = rest; *p;) {
    while (IsSeparator(*p)) ++p;
    const char* start = p;
    while (*p && !IsSeparator(*p)) ++p;
    if (p == start) break;
    if (*start == '.' && (p - start == 1 || (p - start == 2 && start[1] == '.'))) return false;
    *joined += '/';
    joined->append(start, p);
  }
  return true;
}

}  // namespace

bool ResolvePath(const char* path, std::string* real) {
  if (!path || !std::isalpha(static_cast<unsigned char>(path[0])) || path[1] != ':') {
    SetLastError(kErrorPathNotFound);
    return false;
  }
  std::string root = DriveRoot(path[0]);
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  struct stat st;
  // Most paths name an entry exactly as spelled: one lstat of the whole
  // path tells, since it succeeds only where every directory on the way
  // does, and then each component matches as it stands.
  if (ExactPath(root, path + 2, real) && ::lstat(real->c_str(), &st) == 0) return true;
  if (::stat(root.c_str(), &st) != 0) MakeDirectories(root);

  std::vector<std::string> components;
  bool exists = true;  // while false, no entry below can exist either
  const char* p = path + 2;
  while (*p) {
    while (IsSeparator(*p)) ++p;
    const char* start = p;
    while (*p && !IsSeparator(*p)) ++p;
    if (p == start) break;
    std::string component(start, p);
    if (component == ".") continue;
    if (component == "..") {
      if (!components.empty()) components.pop_back();
      exists = true;
      continue;
    }
    if (exists) {
      std::string dir = root;
      for (const std::string& c : components) dir += "/" + c;
      component = MatchEntry(dir, component, &exists);
    }
    components.push_back(std::move(component));
  }
  *real = root;
  for (const std::string& c : components) *real += "/" + c;
  return true;
}

bool MatchesPattern(const char* pattern, const char* name) {
  return MatchWildcard(pattern, name, [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  });
}

}  // namespace platform
}  // namespace molra
