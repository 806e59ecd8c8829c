#include "platform/win32_paths.h"

#include <windows.h>

#include <vector>

#include "platform/env.h"
#include "platform/settings.h"
#include "platform/wildcard.h"

namespace molra {
namespace platform {
namespace {

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

// Makes `dir` (a long-form path) and its missing parents.
bool MakeDirectories(const std::wstring& dir, size_t volumeLength) {
  if (dir.size() <= volumeLength || ::CreateDirectoryW(dir.c_str(), nullptr)) return true;
  const DWORD error = ::GetLastError();
  if (error == ERROR_ALREADY_EXISTS) return true;
  const size_t slash = dir.rfind(L'\\');
  if (error != ERROR_PATH_NOT_FOUND || slash == std::wstring::npos || slash <= volumeLength) {
    return false;
  }
  return MakeDirectories(dir.substr(0, slash), volumeLength) &&
         ::CreateDirectoryW(dir.c_str(), nullptr) != 0;
}

// The root of drive `letter` in long form, without a closing backslash,
// and the length of its volume part ("\\?\D:", "\\?\UNC\server\share").
bool DriveRootPath(char letter, std::wstring* root, size_t* volumeLength) {
  std::wstring given = Widen(DriveRoot(letter));
  for (wchar_t& c : given) {
    if (c == L'/') c = L'\\';
  }
  if (given.empty()) given = L".";
  const DWORD needed = ::GetFullPathNameW(given.c_str(), 0, nullptr, nullptr);
  if (needed == 0) return false;
  std::vector<wchar_t> full(needed);
  const DWORD length = ::GetFullPathNameW(given.c_str(), needed, full.data(), nullptr);
  if (length == 0 || length >= needed) return false;
  std::wstring path(full.data(), length);
  while (!path.empty() && path.back() == L'\\') path.pop_back();

  if (path.compare(0, 2, L"\\\\") != 0) {
    *root = L"\\\\?\\" + path;  // "D:\dir"
  } else if (path.compare(0, 4, L"\\\\?\\") != 0 && path.compare(0, 4, L"\\\\.\\") != 0) {
    *root = L"\\\\?\\UNC\\" + path.substr(2);  // "\\server\share\dir"
  } else {
    *root = path;  // already in long or device form
  }
  // The volume ends behind "\\?\D:", or behind the server and the share.
  const bool unc = root->compare(0, 8, L"\\\\?\\UNC\\") == 0;
  size_t end = root->find(L'\\', unc ? 8 : 4);
  if (unc && end != std::wstring::npos) end = root->find(L'\\', end + 1);
  *volumeLength = end == std::wstring::npos ? root->size() : end;
  return true;
}

}  // namespace

std::wstring Widen(const std::string& text) {
  if (text.empty()) return std::wstring();
  const int length = static_cast<int>(text.size());
  const int needed = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
  if (needed <= 0) return std::wstring();
  std::wstring wide(static_cast<size_t>(needed), L'\0');
  if (::MultiByteToWideChar(CP_UTF8, 0, text.data(), length, &wide[0], needed) != needed) {
    return std::wstring();
  }
  return wide;
}

std::string Narrow(const std::wstring& text) {
  if (text.empty()) return std::string();
  const int length = static_cast<int>(text.size());
  const int needed =
      ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  if (needed <= 0) return std::string();
  std::string narrow(static_cast<size_t>(needed), '\0');
  if (::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, &narrow[0], needed, nullptr,
                            nullptr) != needed) {
    return std::string();
  }
  return narrow;
}

bool ResolvePath(const char* path, std::wstring* real) {
  if (!path || !IsLetter(path[0]) || path[1] != ':') {
    SetLastError(kErrorPathNotFound);
    return false;
  }
  std::wstring root;
  size_t volumeLength = 0;
  if (!DriveRootPath(path[0], &root, &volumeLength)) {
    SetLastError(kErrorPathNotFound);
    return false;
  }
  if (::GetFileAttributesW((root + L"\\").c_str()) == INVALID_FILE_ATTRIBUTES) {
    MakeDirectories(root, volumeLength);  // a failure shows in the call that uses the path
  }

  const std::wstring rest = Widen(path + 2);
  std::vector<std::wstring> components;
  for (size_t at = 0; at < rest.size();) {
    while (at < rest.size() && IsSeparator(rest[at])) ++at;
    const size_t start = at;
    while (at < rest.size() && !IsSeparator(rest[at])) ++at;
    if (at == start) break;
    std::wstring component = rest.substr(start, at - start);
    if (component == L".") continue;
    if (component == L"..") {
      if (!components.empty()) components.pop_back();
      continue;
    }
    components.push_back(std::move(component));
  }
  *real = root;
  for (const std::wstring& c : components) *real += L"\\" + c;
  if (components.empty()) *real += L"\\";
  return true;
}

bool MatchesPattern(const wchar_t* pattern, const wchar_t* name) {
  return MatchWildcard(pattern, name, [](wchar_t a, wchar_t b) {
    return a == b || ::CompareStringOrdinal(&a, 1, &b, 1, TRUE) == CSTR_EQUAL;
  });
}

}  // namespace platform
}  // namespace molra
