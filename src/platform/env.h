// The seam between the store and the operating system.
//
// Its names stay clear of the original platform's own (DeleteFile and the
// like are macros there), so that a backend on that platform can include
// its system headers beside this one.
//
// Every service the store takes from the machine (files with share modes,
// directories, attributes, the clock, sleeping) goes through an Env. The
// POSIX backend serves it now; a Win32 backend can map each call straight
// onto the native one. Paths are always the store's own drive-letter
// paths ("C:\FSDIR\MOLRA.CFT"); a backend decides where they lie.
//
// Failures follow the original platform's habit: a call answers success
// or failure, and the thread's last error number tells why, in the
// original numbering (see the constants below).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "molra/types.h"

namespace molra {
namespace platform {

// Error numbers, in the numbering the store reads.
enum : DWORD {
  kErrorSuccess = 0,
  kErrorFileNotFound = 2,
  kErrorPathNotFound = 3,
  kErrorAccessDenied = 5,
  kErrorInvalidHandle = 6,
  kErrorNotEnoughMemory = 8,
  kErrorWriteFault = 29,
  kErrorReadFault = 30,
  kErrorGenFailure = 31,
  kErrorSharingViolation = 32,
  kErrorHandleEof = 38,
  kErrorFileExists = 80,
  kErrorInvalidParameter = 87,
  kErrorDiskFull = 112,
  kErrorInvalidName = 123,
  kErrorNegativeSeek = 131,
  kErrorAlreadyExists = 183,
  kErrorIoPending = 997,
};

DWORD GetLastError();
void SetLastError(DWORD error);

enum class Access { kRead, kWrite, kReadWrite };

// Share bits: what other handles of the same file may do meanwhile.
enum : unsigned {
  kShareNone = 0,
  kShareRead = 1,
  kShareWrite = 2,
  kShareReadWrite = 3,
};

enum class Disposition {
  kOpenAlways,    // open, or make an empty file
  kOpenExisting,  // open, or fail with kErrorFileNotFound
  kCreateAlways,  // make, or cut an existing file to zero length
};

// Origins of File::Seek, in the platform's numbering.
enum : DWORD { kFileBegin = 0, kFileCurrent = 1, kFileEnd = 2 };

// Hints to File::Advise of how a range of a file is about to be read.
enum class Advice {
  kNormal,      // no particular order
  kSequential,  // read from its start towards its end
  kWillNeed,    // read soon: may be fetched ahead
};

constexpr DWORD kInvalidSetFilePointer = 0xFFFFFFFFu;
constexpr DWORD kInvalidFileSize = 0xFFFFFFFFu;
constexpr DWORD kInvalidFileAttributes = 0xFFFFFFFFu;
constexpr DWORD kFileAttributeReadOnly = 0x01;
constexpr DWORD kFileAttributeHidden = 0x02;
constexpr DWORD kFileAttributeDirectory = 0x10;
constexpr DWORD kFileAttributeNormal = 0x80;

// One open file. Reads and writes work at the current position and say
// how many bytes went; a short read at the end of the file is no error.
class File {
 public:
  virtual ~File() = default;  // releases the handle if still open

  virtual bool Read(void* buffer, DWORD count, DWORD* done) = 0;
  virtual bool Write(const void* buffer, DWORD count, DWORD* done) = 0;
  // Read or write at a byte position from the start of the file, in one
  // request; the current position afterwards is unspecified. False, with
  // nothing moved, for a position beyond what a 32-bit seek can name.
  virtual bool ReadAt(DWORD position, void* buffer, DWORD count, DWORD* done) = 0;
  virtual bool WriteAt(DWORD position, const void* buffer, DWORD count, DWORD* done) = 0;
  // Moves by a signed 32-bit distance from `origin`. Answers the new
  // position, or kInvalidSetFilePointer when it would fall outside 0 to
  // 4 GiB - 2 or the handle fails.
  virtual DWORD Seek(LONG distance, DWORD origin) = 0;
  // Cuts or extends the file to the current position, writing no data.
  virtual bool SetEnd() = 0;
  // Gives the first `size` bytes of the file disk blocks of their own, so
  // that no later write within them can fail for want of room. Changes no
  // byte and never cuts: a shorter file grows to `size` with zeros. Fails
  // with kErrorDiskFull when the drive has no room. The current position
  // afterwards is unspecified. This base can only write zeros past the
  // end; a backend allocates instead (a Win32 one by setting the file's
  // allocation size, or by SetEndOfFile and writing the zeros).
  virtual bool Reserve(DWORD size);
  virtual DWORD Size() = 0;  // kInvalidFileSize on failure
  virtual bool Flush() = 0;
  // Tells the system how `length` bytes from `position` are about to be
  // read (0: to the end of the file). A hint only: no byte and no answer
  // of a later call changes. False where it is not taken; this base takes
  // none.
  virtual bool Advise(Advice /*advice*/, DWORD /*position*/, DWORD /*length*/) { return false; }
  // True when `path` names the very file this handle has open; false when
  // it names another file or none, or the backend cannot tell, as this
  // base cannot.
  virtual bool IsFileAt(const char* /*path*/) { return false; }
  // Releases the handle. A backend whose failed close keeps the handle
  // leaves the file open, so that a caller can try again; one whose system
  // releases it anyway answers the next Close with success.
  virtual bool Close() = 0;
};

// A directory entry found by pattern.
struct FoundFile {
  std::string name;       // the entry's own name, no directory
  SYSTEMTIME lastWrite;   // UTC
  DWORD attributes;
  std::uint64_t size;
};

class Env {
 public:
  virtual ~Env() = default;

  // The backend of this machine. Lives as long as the process.
  static Env* Default();

  // Opens `path` with `access`, letting other handles do what `share`
  // allows. Refuses with kErrorSharingViolation when this handle's access
  // or share bits clash with another handle's, in any process.
  virtual std::unique_ptr<File> OpenFile(const char* path, Access access,
                                         unsigned share,
                                         Disposition disposition) = 0;
  // Fails with kErrorSharingViolation while any handle has the file open.
  virtual bool RemoveFile(const char* path) = 0;
  virtual bool MakeDirectory(const char* path) = 0;
  virtual bool Exists(const char* path) = 0;
  // The size of a file by its path, without opening it.
  virtual bool FileSize(const char* path, std::uint64_t* size) = 0;
  virtual DWORD GetAttributes(const char* path) = 0;
  virtual bool SetAttributes(const char* path, DWORD attributes) = 0;
  // Lists the files of one directory whose names match the pattern's last
  // component ('*' and '?', any case). False when nothing matches.
  virtual bool FindFiles(const char* pattern, std::vector<FoundFile>* found) = 0;
  // Appends text to a file that is made if absent; other handles may read
  // and write it meanwhile (a text log).
  virtual bool AppendText(const char* path, const char* text) = 0;

  virtual void NowUtc(SYSTEMTIME* now) = 0;  // the machine's real clock
  // The machine's zone in the recurring form; a rule beyond that form is
  // fitted to `year`, and `note` says so (empty otherwise).
  virtual void MachineTimeZone(int year, TIME_ZONE_INFORMATION* zone, std::string* note) = 0;
  virtual void Sleep(DWORD milliseconds) = 0;
};

// An Env that hands every call on to another one: an environment for
// tests derives from it and overrides only what it changes.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env* target) : m_target(target) {}

  std::unique_ptr<File> OpenFile(const char* path, Access access, unsigned share,
                                 Disposition disposition) override {
    return m_target->OpenFile(path, access, share, disposition);
  }
  bool RemoveFile(const char* path) override { return m_target->RemoveFile(path); }
  bool MakeDirectory(const char* path) override { return m_target->MakeDirectory(path); }
  bool Exists(const char* path) override { return m_target->Exists(path); }
  bool FileSize(const char* path, std::uint64_t* size) override {
    return m_target->FileSize(path, size);
  }
  DWORD GetAttributes(const char* path) override { return m_target->GetAttributes(path); }
  bool SetAttributes(const char* path, DWORD attributes) override {
    return m_target->SetAttributes(path, attributes);
  }
  bool FindFiles(const char* pattern, std::vector<FoundFile>* found) override {
    return m_target->FindFiles(pattern, found);
  }
  bool AppendText(const char* path, const char* text) override {
    return m_target->AppendText(path, text);
  }
  void NowUtc(SYSTEMTIME* now) override { m_target->NowUtc(now); }
  void MachineTimeZone(int year, TIME_ZONE_INFORMATION* zone, std::string* note) override {
    m_target->MachineTimeZone(year, zone, note);
  }
  void Sleep(DWORD milliseconds) override { m_target->Sleep(milliseconds); }

 protected:
  Env* const m_target;
};

// The Env that the store uses: the default backend unless a test has
// installed another one.
Env* CurrentEnv();
// Installs `env` for the whole process; nullptr returns to the default.
void SetCurrentEnv(Env* env);

}  // namespace platform
}  // namespace molra
