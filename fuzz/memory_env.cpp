#include "memory_env.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "platform/clock.h"
#include "platform/wildcard.h"

namespace platform = molra::platform;

namespace molra_fuzz {
namespace {

constexpr DWORD kPage = 4096;

}  // namespace

struct MemoryEnv::Data {
  std::uint64_t size = 0;
  std::map<DWORD, std::unique_ptr<char[]>> pages;  // by page number; absent: zeros
  DWORD attributes = 0;
  SYSTEMTIME lastWrite{};
  std::vector<std::pair<platform::Access, unsigned>*> holders;  // open handles

  void Read(std::uint64_t at, char* out, DWORD count) const {
    while (count != 0) {
      const DWORD page = static_cast<DWORD>(at / kPage);
      const DWORD in = static_cast<DWORD>(at % kPage);
      const DWORD piece = std::min(count, kPage - in);
      const auto found = pages.find(page);
      if (found == pages.end()) {
        std::memset(out, 0, piece);
      } else {
        std::memcpy(out, found->second.get() + in, piece);
      }
      at += piece;
      out += piece;
      count -= piece;
    }
  }

  void Write(std::uint64_t at, const char* in, DWORD count) {
    while (count != 0) {
      const DWORD page = static_cast<DWORD>(at / kPage);
      const DWORD within = static_cast<DWORD>(at % kPage);
      const DWORD piece = std::min(count, kPage - within);
      auto found = pages.find(page);
      const bool zeros = std::all_of(in, in + piece, [](char c) { return c == 0; });
      if (found == pages.end() && !zeros) {
        found = pages.emplace(page, std::unique_ptr<char[]>(new char[kPage]())).first;
      }
      if (found != pages.end()) std::memcpy(found->second.get() + within, in, piece);
      at += piece;
      in += piece;
      count -= piece;
    }
    platform::GetSystemTime(&lastWrite);
  }

  void Resize(std::uint64_t length) {
    if (length < size) {
      pages.erase(pages.lower_bound(static_cast<DWORD>((length + kPage - 1) / kPage)),
                  pages.end());
      const auto tail = pages.find(static_cast<DWORD>(length / kPage));
      if (tail != pages.end() && length % kPage != 0) {
        std::memset(tail->second.get() + length % kPage, 0, kPage - length % kPage);
      }
    }
    size = length;
  }
};

namespace {

bool Fail(DWORD error) {
  platform::SetLastError(error);
  return false;
}

class MemoryFile final : public platform::File {
 public:
  MemoryFile(std::shared_ptr<MemoryEnv::Data> data, platform::Access access, unsigned share)
      : m_data(std::move(data)), m_mode(access, share) {
    m_data->holders.push_back(&m_mode);
  }
  ~MemoryFile() override { Close(); }

  bool Read(void* buffer, DWORD count, DWORD* done) override {
    const bool read = ReadAt(static_cast<DWORD>(m_pos), buffer, count, done);
    if (read) m_pos += *done;
    return read;
  }
  bool Write(const void* buffer, DWORD count, DWORD* done) override {
    const bool written = WriteAt(static_cast<DWORD>(m_pos), buffer, count, done);
    if (written) m_pos += *done;
    return written;
  }
  bool ReadAt(DWORD position, void* buffer, DWORD count, DWORD* done) override {
    *done = 0;
    if (!Usable(m_mode.first != platform::Access::kWrite)) return false;
    if (position > 0x7FFFFFFFu) return Fail(platform::kErrorNegativeSeek);
    if (position >= m_data->size) return true;
    *done = static_cast<DWORD>(std::min<std::uint64_t>(count, m_data->size - position));
    m_data->Read(position, static_cast<char*>(buffer), *done);
    return true;
  }
  bool WriteAt(DWORD position, const void* buffer, DWORD count, DWORD* done) override {
    *done = 0;
    if (!Usable(m_mode.first != platform::Access::kRead)) return false;
    if (position > 0x7FFFFFFFu) return Fail(platform::kErrorNegativeSeek);
    const std::uint64_t end = std::uint64_t{position} + count;
    if (end > MemoryEnv::kMaxFileSize) return Fail(platform::kErrorDiskFull);
    m_data->Write(position, static_cast<const char*>(buffer), count);
    if (end > m_data->size) m_data->size = end;
    *done = count;
    return true;
  }
  DWORD Seek(LONG distance, DWORD origin) override {
    if (!Usable(true)) return platform::kInvalidSetFilePointer;
    std::int64_t base = 0;
    if (origin == platform::kFileCurrent) {
      base = static_cast<std::int64_t>(m_pos);
    } else if (origin == platform::kFileEnd) {
      base = static_cast<std::int64_t>(m_data->size);
    } else if (origin != platform::kFileBegin) {
      Fail(platform::kErrorInvalidParameter);
      return platform::kInvalidSetFilePointer;
    }
    const std::int64_t target = base + distance;
    if (target < 0 || target >= platform::kInvalidSetFilePointer) {
      Fail(target < 0 ? platform::kErrorNegativeSeek : platform::kErrorInvalidParameter);
      return platform::kInvalidSetFilePointer;
    }
    m_pos = static_cast<std::uint64_t>(target);
    return static_cast<DWORD>(target);
  }
  bool SetEnd() override {
    if (!Usable(m_mode.first != platform::Access::kRead)) return false;
    if (m_pos > MemoryEnv::kMaxFileSize) return Fail(platform::kErrorDiskFull);
    m_data->Resize(m_pos);
    return true;
  }
  bool Reserve(DWORD size) override {
    if (!Usable(m_mode.first != platform::Access::kRead)) return false;
    if (size > MemoryEnv::kMaxFileSize) return Fail(platform::kErrorDiskFull);
    if (size > m_data->size) m_data->size = size;
    return true;
  }
  DWORD Size() override {
    if (!Usable(true)) return platform::kInvalidFileSize;
    return static_cast<DWORD>(m_data->size);
  }
  bool Flush() override { return Usable(m_mode.first != platform::Access::kRead); }
  bool Close() override {
    if (!m_open) return true;
    m_open = false;
    auto& holders = m_data->holders;
    holders.erase(std::find(holders.begin(), holders.end(), &m_mode));
    return true;
  }

 private:
  bool Usable(bool allowed) {
    if (!m_open) return Fail(platform::kErrorInvalidHandle);
    if (!allowed) return Fail(platform::kErrorAccessDenied);
    return true;
  }

  std::shared_ptr<MemoryEnv::Data> m_data;
  std::pair<platform::Access, unsigned> m_mode;
  std::uint64_t m_pos = 0;
  bool m_open = true;
};

// Whether a new handle and an open one allow each other.
bool Compatible(platform::Access access, unsigned share,
                const std::pair<platform::Access, unsigned>& held) {
  const auto allows = [](platform::Access a, unsigned s) {
    const bool reads = a != platform::Access::kWrite;
    const bool writes = a != platform::Access::kRead;
    return (!reads || (s & platform::kShareRead) != 0) &&
           (!writes || (s & platform::kShareWrite) != 0);
  };
  return allows(access, held.second) && allows(held.first, share);
}

std::string Parent(const std::string& key) {
  const size_t slash = key.rfind('\\');
  return slash == std::string::npos ? std::string() : key.substr(0, slash);
}

bool IsDriveRoot(const std::string& key) {
  return key.empty() || (key.size() == 2 && key[1] == ':');
}

}  // namespace

std::string MemoryEnv::Key(const std::string& path) {
  std::string key = path;
  for (char& c : key) {
    c = c == '/' ? '\\' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  while (key.size() > 1 && key.back() == '\\') key.pop_back();
  return key;
}

bool MemoryEnv::ParentExists(const std::string& key) const {
  const std::string parent = Parent(key);
  return IsDriveRoot(parent) || m_dirs.count(parent) != 0;
}

std::shared_ptr<MemoryEnv::Data> MemoryEnv::Find(const std::string& path) const {
  const auto found = m_files.find(Key(path));
  return found == m_files.end() ? nullptr : found->second.data;
}

void MemoryEnv::Clear() {
  m_files.clear();
  m_dirs.clear();
}

void MemoryEnv::MakeDirectories(const std::string& path) {
  for (std::string key = Key(path); !IsDriveRoot(key); key = Parent(key)) m_dirs.insert(key);
}

void MemoryEnv::Put(const std::string& path, DWORD offset, const void* bytes, DWORD count) {
  Extend(path, 0);
  const std::uint64_t end = std::uint64_t{offset} + count;
  if (end > kMaxFileSize) return;
  Data& data = *Find(path);
  data.Write(offset, static_cast<const char*>(bytes), count);
  data.size = std::max(data.size, end);
}

void MemoryEnv::Extend(const std::string& path, std::uint64_t size) {
  const std::string key = Key(path);
  if (m_files.count(key) == 0) {
    MakeDirectories(Parent(key));
    m_files[key] = Entry{path, std::make_shared<Data>()};
  }
  Data& data = *m_files[key].data;
  data.size = std::max(data.size, std::min(size, kMaxFileSize));
}

bool MemoryEnv::Get(const std::string& path, DWORD offset, void* bytes, DWORD count) const {
  const std::shared_ptr<Data> data = Find(path);
  if (!data) return false;
  std::memset(bytes, 0, count);
  if (offset < data->size) {
    data->Read(offset, static_cast<char*>(bytes),
               static_cast<DWORD>(std::min<std::uint64_t>(count, data->size - offset)));
  }
  return true;
}

std::uint64_t MemoryEnv::SizeOf(const std::string& path) const {
  const std::shared_ptr<Data> data = Find(path);
  return data ? data->size : 0;
}

std::unique_ptr<platform::File> MemoryEnv::OpenFile(const char* path, platform::Access access,
                                                    unsigned share,
                                                    platform::Disposition disposition) {
  const std::string key = Key(path);
  if (m_dirs.count(key) != 0 || IsDriveRoot(key)) {
    Fail(platform::kErrorAccessDenied);
    return nullptr;
  }
  auto found = m_files.find(key);
  if (found == m_files.end()) {
    if (!ParentExists(key)) {
      Fail(platform::kErrorPathNotFound);
      return nullptr;
    }
    if (disposition == platform::Disposition::kOpenExisting) {
      Fail(platform::kErrorFileNotFound);
      return nullptr;
    }
    found = m_files.emplace(key, Entry{path, std::make_shared<Data>()}).first;
  }
  const std::shared_ptr<Data> data = found->second.data;
  for (const auto* held : data->holders) {
    if (!Compatible(access, share, *held)) {
      Fail(platform::kErrorSharingViolation);
      return nullptr;
    }
  }
  if (disposition == platform::Disposition::kCreateAlways) data->Resize(0);
  platform::SetLastError(platform::kErrorSuccess);
  return std::make_unique<MemoryFile>(data, access, share);
}

bool MemoryEnv::RemoveFile(const char* path) {
  const std::string key = Key(path);
  if (m_dirs.count(key) != 0) return Fail(platform::kErrorAccessDenied);
  const auto found = m_files.find(key);
  if (found == m_files.end()) {
    return Fail(ParentExists(key) ? platform::kErrorFileNotFound : platform::kErrorPathNotFound);
  }
  if (!found->second.data->holders.empty()) return Fail(platform::kErrorSharingViolation);
  m_files.erase(found);
  return true;
}

bool MemoryEnv::MakeDirectory(const char* path) {
  const std::string key = Key(path);
  if (m_dirs.count(key) != 0 || m_files.count(key) != 0 || IsDriveRoot(key)) {
    return Fail(platform::kErrorAlreadyExists);
  }
  if (!ParentExists(key)) return Fail(platform::kErrorPathNotFound);
  m_dirs.insert(key);
  return true;
}

bool MemoryEnv::Exists(const char* path) {
  const std::string key = Key(path);
  return IsDriveRoot(key) || m_dirs.count(key) != 0 || m_files.count(key) != 0;
}

bool MemoryEnv::FileSize(const char* path, std::uint64_t* size) {
  const std::shared_ptr<Data> data = Find(path);
  if (!data) return Fail(platform::kErrorFileNotFound);
  *size = data->size;
  return true;
}

DWORD MemoryEnv::GetAttributes(const char* path) {
  const std::string key = Key(path);
  if (IsDriveRoot(key) || m_dirs.count(key) != 0) return platform::kFileAttributeDirectory;
  const std::shared_ptr<Data> data = Find(path);
  if (!data) {
    Fail(platform::kErrorFileNotFound);
    return platform::kInvalidFileAttributes;
  }
  return data->attributes != 0 ? data->attributes : platform::kFileAttributeNormal;
}

bool MemoryEnv::SetAttributes(const char* path, DWORD attributes) {
  const std::shared_ptr<Data> data = Find(path);
  if (!data) return Fail(platform::kErrorFileNotFound);
  data->attributes =
      attributes & ~(platform::kFileAttributeNormal | platform::kFileAttributeDirectory);
  return true;
}

bool MemoryEnv::FindFiles(const char* pattern, std::vector<platform::FoundFile>* found) {
  found->clear();
  const std::string key = Key(pattern);
  const std::string dir = Parent(key);
  const std::string name = key.substr(dir.empty() ? 0 : dir.size() + 1);
  if (!IsDriveRoot(dir) && m_dirs.count(dir) == 0) return Fail(platform::kErrorPathNotFound);
  for (const auto& [fileKey, entry] : m_files) {
    if (Parent(fileKey) != dir) continue;
    const std::string own = fileKey.substr(dir.empty() ? 0 : dir.size() + 1);
    if (!platform::MatchWildcard(name.c_str(), own.c_str(),
                                 [](char a, char b) { return a == b; })) {
      continue;
    }
    const std::string real = entry.path.substr(entry.path.size() - own.size());
    found->push_back(platform::FoundFile{real, entry.data->lastWrite,
                                         GetAttributes(entry.path.c_str()), entry.data->size});
  }
  return found->empty() ? Fail(platform::kErrorFileNotFound) : true;
}

bool MemoryEnv::AppendText(const char* path, const char* text) {
  const std::string key = Key(path);
  if (!ParentExists(key)) return Fail(platform::kErrorPathNotFound);
  Extend(path, 0);
  Data& data = *Find(path);
  const DWORD length = static_cast<DWORD>(std::strlen(text));
  if (data.size + length > kMaxFileSize) return Fail(platform::kErrorDiskFull);
  data.Write(data.size, text, length);
  data.size += length;
  return true;
}

void MemoryEnv::NowUtc(SYSTEMTIME* now) { *now = SYSTEMTIME{2010, 11, 4, 18, 9, 30, 15, 250}; }

void MemoryEnv::MachineTimeZone(int /*year*/, TIME_ZONE_INFORMATION* zone, std::string* note) {
  *zone = TIME_ZONE_INFORMATION{};
  if (note) note->clear();
}

void MemoryEnv::Sleep(DWORD /*milliseconds*/) {}

}  // namespace molra_fuzz
