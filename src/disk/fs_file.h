// The file wrapper through which the store does its disk work: opens with
// retries on a sharing violation, exact reads and writes, 32-bit seeks,
// and preallocated files of a fixed size. A failed write, seek or
// reservation leaves one line in the status log; a short read does not,
// since reading up to the end of a file is normal.
#pragma once

#include <memory>
#include <string>

#include "molra/types.h"
#include "platform/env.h"

namespace molra {
namespace detail {

class CFsFile {
 public:
  // Access modes of Open.
  enum : int { kModeRead = 0, kModeWrite = 1, kModeReadWrite = 2 };

  CFsFile() = default;
  virtual ~CFsFile();
  CFsFile(const CFsFile&) = delete;
  CFsFile& operator=(const CFsFile&) = delete;

  int IsOpen() const { return m_hFile != nullptr; }
  // Mode 2 reads and writes, 1 writes, anything else reads. The file is
  // shared with every other reader and writer and made if absent. A file
  // the object still holds is released without the retries of Close.
  int Open(char const* path, int mode);
  int Close();
  // 1 only when exactly `count` bytes moved.
  int Read(void* buffer, DWORD count);
  int Write(const void* buffer, DWORD count);
  // Seek from the start and Read or Write, in one request: 1 only when the
  // position could be reached and exactly `count` bytes moved. The current
  // position afterwards is unspecified.
  int ReadAt(DWORD offset, void* buffer, DWORD count);
  int WriteAt(DWORD offset, const void* buffer, DWORD count);
  // Origin 0 start, 1 end, 2 current position. 1 only when the new
  // position equals `offset`.
  int Seek(DWORD offset, int origin);
  DWORD GetSize();
  // Forces what was written to the disk; 1 when it got there.
  int Flush();
  // Gives the first `size` bytes disk blocks of their own, so that writes
  // within them cannot fail for want of room. Never cuts; changes no byte;
  // a shorter file grows to `size` with zeros. The position afterwards is
  // unspecified.
  int Reserve(DWORD size);
  // Opens or makes the file, reserves its blocks and sets its length; the
  // file stays open with the position at `size`.
  int CreateSized(char const* path, DWORD size);
  // Tells the system how `count` bytes from `offset` are about to be read
  // (0: to the end); 1 when the hint was taken. Nothing else changes.
  int Advise(molra::platform::Advice advice, DWORD offset, DWORD count);
  // 1 when the file is open by `path`, as spelled, and `path` still names
  // that very file; 0 also when the system cannot tell.
  int Holds(char const* path);

 protected:
  std::unique_ptr<molra::platform::File> m_hFile;  // null: no file open

 private:
  // Logs the failed `operation` at `offset` with the thread's last error.
  void LogFailure(const char* operation, DWORD offset) const;

  std::string m_path;  // of the file last opened, for the log
  int m_advice = -1;   // the whole-file hint this handle has taken; -1 none
};

}  // namespace detail
}  // namespace molra
