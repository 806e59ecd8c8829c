// A whole machine in memory for the fuzz targets: files and directories
// under the store's own drive-letter paths, with the share modes, short
// reads and error numbers of the real backends. Nothing reaches the disk,
// whatever path a damaged catalogue names, and clearing it between two
// inputs costs next to nothing.
//
// A file is its length and its non-zero pages: reserving 64 MiB or
// reading zeros allocates nothing. Writes that would take a file past
// kMaxFileSize fail as on a full drive.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/env.h"

namespace molra_fuzz {

class MemoryEnv : public molra::platform::Env {
 public:
  static constexpr std::uint64_t kMaxFileSize = 80u << 20;

  // Forgets every file and directory.
  void Clear();
  // Makes `path`'s file if absent (with its directories) and writes at
  // `offset`; extends it to `size` at least.
  void Put(const std::string& path, DWORD offset, const void* bytes, DWORD count);
  void Extend(const std::string& path, std::uint64_t size);
  // Reads up to `count` bytes; false when there is no such file.
  bool Get(const std::string& path, DWORD offset, void* bytes, DWORD count) const;
  std::uint64_t SizeOf(const std::string& path) const;
  // Makes a directory and those above it.
  void MakeDirectories(const std::string& path);

  std::unique_ptr<molra::platform::File> OpenFile(const char* path,
                                                  molra::platform::Access access,
                                                  unsigned share,
                                                  molra::platform::Disposition disposition) override;
  bool RemoveFile(const char* path) override;
  bool MakeDirectory(const char* path) override;
  bool Exists(const char* path) override;
  bool FileSize(const char* path, std::uint64_t* size) override;
  DWORD GetAttributes(const char* path) override;
  bool SetAttributes(const char* path, DWORD attributes) override;
  bool FindFiles(const char* pattern, std::vector<molra::platform::FoundFile>* found) override;
  bool AppendText(const char* path, const char* text) override;
  void NowUtc(SYSTEMTIME* now) override;
  void MachineTimeZone(int year, TIME_ZONE_INFORMATION* zone, std::string* note) override;
  void Sleep(DWORD milliseconds) override;

  struct Data;  // one file's bytes and who holds it open

 private:
  struct Entry {
    std::string path;  // as first named
    std::shared_ptr<Data> data;
  };

  static std::string Key(const std::string& path);
  bool ParentExists(const std::string& key) const;
  std::shared_ptr<Data> Find(const std::string& path) const;

  std::map<std::string, Entry> m_files;  // by Key
  std::set<std::string> m_dirs;          // by Key
};

}  // namespace molra_fuzz
