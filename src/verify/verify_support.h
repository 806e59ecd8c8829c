// What the store verifier stands on: files opened for reading only,
// copies of a file read in one go, and the list of findings.
#pragma once

#include <cstdarg>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/env.h"
#include "verify/store_verifier.h"

namespace molra {
namespace verify {

// printf into a string.
#if defined(_WIN32)
// DWORD and LONG are long there: the 32 bits that %u and %d read, under
// another name.
inline unsigned SayArg(unsigned long value) { return static_cast<unsigned>(value); }
inline int SayArg(long value) { return static_cast<int>(value); }
template <typename T>
T SayArg(T value) {
  return value;
}
std::string SayText(const char* format, ...);
template <typename... Args>
std::string Say(const char* format, Args... args) {
  return SayText(format, SayArg(args)...);
}
#else
std::string Say(const char* format, ...) __attribute__((format(printf, 1, 2)));
#endif

// A stamp as text, to the millisecond.
std::string StampText(const SYSTEMTIME& t);

// The findings of one pass. A kind of fault that repeats in one file (a
// zeroed page of cells, a data head that every chunk runs past) is
// listed a few times and then counted.
class Report {
 public:
  // `kind` names the repeating fault; null: never cut short.
  void Add(const std::string& file, DWORD offset, std::string what, const char* kind = nullptr);
  // The findings, with one closing line for each kind cut short.
  std::vector<Finding> Take();
  bool Empty() const { return m_findings.empty(); }

 private:
  struct Cut {
    DWORD seen = 0;
    DWORD firstOffset = 0;  // of the first one left out
  };
  std::vector<Finding> m_findings;
  std::map<std::pair<std::string, std::string>, Cut> m_kinds;
};

// A store file opened for reading only, shared with every reader and
// writer, and never made: the verifier writes nothing, not even a log line.
class ReadOnlyFile {
 public:
  // False when the file is missing or cannot be opened; Error() says why.
  bool Open(const char* path);
  bool IsOpen() const { return m_file != nullptr; }
  DWORD Error() const { return m_error; }
  DWORD Size();
  // Up to `count` bytes from `offset`; the bytes read.
  DWORD ReadUpTo(DWORD offset, void* buffer, DWORD count);
  bool Read(DWORD offset, void* buffer, DWORD count) {
    return ReadUpTo(offset, buffer, count) == count;
  }
  std::vector<BYTE> ReadBlock(DWORD offset, DWORD count);

 private:
  std::unique_ptr<platform::File> m_file;
  DWORD m_error = 0;
};

// Bytes read earlier, served as a file that cannot be written: the
// recorder's own checks then judge what the verifier read, at one moment.
class SnapshotFile final : public platform::File {
 public:
  explicit SnapshotFile(std::vector<BYTE> bytes) : m_bytes(std::move(bytes)) {}

  bool Read(void* buffer, DWORD count, DWORD* done) override;
  bool Write(const void* buffer, DWORD count, DWORD* done) override;
  bool ReadAt(DWORD position, void* buffer, DWORD count, DWORD* done) override;
  bool WriteAt(DWORD position, const void* buffer, DWORD count, DWORD* done) override;
  DWORD Seek(LONG distance, DWORD origin) override;
  bool SetEnd() override;
  bool Reserve(DWORD size) override;
  DWORD Size() override { return static_cast<DWORD>(m_bytes.size()); }
  bool Flush() override { return true; }
  bool Close() override { return true; }

 private:
  std::vector<BYTE> m_bytes;
  DWORD m_position = 0;
};

}  // namespace verify
}  // namespace molra
