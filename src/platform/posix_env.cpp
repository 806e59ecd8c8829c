// The POSIX backend of the platform layer.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "platform/clock.h"
#include "platform/env.h"
#include "platform/posix_machine_zone.h"
#include "platform/posix_paths.h"
#include "platform/posix_share_modes.h"

namespace molra {
namespace platform {
namespace {

// The attribute word of a file lives in this extended attribute.
constexpr const char* kAttributeName = "user.molra.attributes";
// Attribute bits that are kept; the others follow from the file itself.
constexpr DWORD kKeptAttributes = ~(kFileAttributeNormal | kFileAttributeDirectory);

bool ParentExists(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return true;
  struct stat st;
  return ::stat(path.substr(0, slash == 0 ? 1 : slash).c_str(), &st) == 0 &&
         S_ISDIR(st.st_mode);
}

DWORD ErrorFromErrno(int err, const std::string& path) {
  switch (err) {
    case ENOENT:
      return ParentExists(path) ? kErrorFileNotFound : kErrorPathNotFound;
    case ENOTDIR:
      return kErrorPathNotFound;
    case EACCES:
    case EPERM:
    case EISDIR:
    case EROFS:
      return kErrorAccessDenied;
    case EEXIST:
      return kErrorAlreadyExists;
    case ENOSPC:
    case EDQUOT:
      return kErrorDiskFull;
    case ENOMEM:
      return kErrorNotEnoughMemory;
    case EBADF:
      return kErrorInvalidHandle;
    case ENAMETOOLONG:
      return kErrorInvalidName;
    case EINVAL:
      return kErrorInvalidParameter;
    default:
      return kErrorGenFailure;
  }
}

class PosixFile final : public File {
 public:
  PosixFile(int fd, Access access, std::string path)
      : m_fd(fd),
        m_canRead(access != Access::kWrite),
        m_canWrite(access != Access::kRead),
        m_path(std::move(path)) {}
  ~PosixFile() override {
    if (m_fd >= 0) ::close(m_fd);
  }

  bool Read(void* buffer, DWORD count, DWORD* done) override {
    *done = 0;
    if (!Usable(m_canRead)) return false;
    char* out = static_cast<char*>(buffer);
    while (*done < count) {
      const ssize_t n = ::read(m_fd, out + *done, count - *done);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return Fail(errno);
      if (n == 0) break;  // end of file: a short read, not an error
      *done += static_cast<DWORD>(n);
    }
    return true;
  }

  bool Write(const void* buffer, DWORD count, DWORD* done) override {
    *done = 0;
    if (!Usable(m_canWrite)) return false;
    const char* in = static_cast<const char*>(buffer);
    while (*done < count) {
      const ssize_t n = ::write(m_fd, in + *done, count - *done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return Fail(n < 0 ? errno : ENOSPC);
      *done += static_cast<DWORD>(n);
    }
    return true;
  }

  bool ReadAt(DWORD position, void* buffer, DWORD count, DWORD* done) override {
    *done = 0;
    if (!Usable(m_canRead) || !Reachable(position)) return false;
    char* out = static_cast<char*>(buffer);
    while (*done < count) {
      const ssize_t n = ::pread(m_fd, out + *done, count - *done, off_t{position} + *done);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return Fail(errno);
      if (n == 0) break;  // end of file: a short read, not an error
      *done += static_cast<DWORD>(n);
    }
    return true;
  }

  bool WriteAt(DWORD position, const void* buffer, DWORD count, DWORD* done) override {
    *done = 0;
    if (!Usable(m_canWrite) || !Reachable(position)) return false;
    const char* in = static_cast<const char*>(buffer);
    while (*done < count) {
      const ssize_t n = ::pwrite(m_fd, in + *done, count - *done, off_t{position} + *done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return Fail(n < 0 ? errno : ENOSPC);
      *done += static_cast<DWORD>(n);
    }
    return true;
  }

  DWORD Seek(LONG distance, DWORD origin) override {
    if (!Usable(true)) return kInvalidSetFilePointer;
    off_t base = 0;
    if (origin == kFileCurrent) {
      base = ::lseek(m_fd, 0, SEEK_CUR);
    } else if (origin == kFileEnd) {
      struct stat st;
      base = ::fstat(m_fd, &st) == 0 ? st.st_size : -1;
    } else if (origin != kFileBegin) {
      SetLastError(kErrorInvalidParameter);
      return kInvalidSetFilePointer;
    }
    if (base < 0) {
      Fail(errno);
      return kInvalidSetFilePointer;
    }
    const off_t target = base + distance;
    if (target < 0) {
      SetLastError(kErrorNegativeSeek);
      return kInvalidSetFilePointer;
    }
    // A 32-bit seek cannot name a position beyond 4 GiB - 2.
    if (target >= static_cast<off_t>(kInvalidSetFilePointer)) {
      SetLastError(kErrorInvalidParameter);
      return kInvalidSetFilePointer;
    }
    if (::lseek(m_fd, target, SEEK_SET) < 0) {
      Fail(errno);
      return kInvalidSetFilePointer;
    }
    return static_cast<DWORD>(target);
  }

  bool SetEnd() override {
    if (!Usable(m_canWrite)) return false;
    const off_t here = ::lseek(m_fd, 0, SEEK_CUR);
    if (here < 0 || ::ftruncate(m_fd, here) != 0) return Fail(errno);
    return true;
  }

  bool Reserve(DWORD size) override {
    if (!Usable(m_canWrite)) return false;
    if (size == 0) return true;
    int err = 0;
#ifdef __linux__
    while (::fallocate(m_fd, 0, 0, off_t{size}) != 0) {
      err = errno;
      if (err != EINTR) break;
      err = 0;
    }
#else
    err = ::posix_fallocate(m_fd, 0, off_t{size});
#endif
    if (err == 0) return true;
    // A file system that cannot allocate gets its holes written instead.
    return CannotAllocate(err) ? FillHoles(off_t{size}) : Fail(err);
  }

  DWORD Size() override {
    if (!Usable(true)) return kInvalidFileSize;
    struct stat st;
    if (::fstat(m_fd, &st) != 0) {
      Fail(errno);
      return kInvalidFileSize;
    }
    return static_cast<DWORD>(st.st_size);
  }

  bool Flush() override {
    if (!Usable(m_canWrite)) return false;
    if (::fdatasync(m_fd) != 0) return Fail(errno);
    return true;
  }

  bool Advise(Advice advice, DWORD position, DWORD length) override {
#ifdef POSIX_FADV_SEQUENTIAL
    if (m_fd < 0) return false;
    const int how = advice == Advice::kSequential ? POSIX_FADV_SEQUENTIAL
                    : advice == Advice::kWillNeed ? POSIX_FADV_WILLNEED
                                                  : POSIX_FADV_NORMAL;
    return ::posix_fadvise(m_fd, off_t{position}, off_t{length}, how) == 0;
#else
    (void)advice, (void)position, (void)length;
    return false;
#endif
  }

  bool IsFileAt(const char* path) override {
    // The last error stays as it was: this is a question, not an operation.
    const DWORD error = GetLastError();
    std::string real;
    struct stat named, held;
    const bool same = m_fd >= 0 && ResolvePath(path, &real) &&
                      ::stat(real.c_str(), &named) == 0 && ::fstat(m_fd, &held) == 0 &&
                      named.st_dev == held.st_dev && named.st_ino == held.st_ino;
    SetLastError(error);
    return same;
  }

  bool Close() override {
    if (m_fd < 0) return true;
    const int fd = std::exchange(m_fd, -1);
    // Linux releases the descriptor even when close reports an error, so
    // the handle is gone either way; the error still reaches the caller.
    if (::close(fd) != 0 && errno != EINTR) return Fail(errno);
    return true;
  }

 private:
  // A position that a seek from the start (a signed 32-bit distance) names.
  static bool Reachable(DWORD position) {
    if (position <= 0x7FFFFFFFu) return true;
    SetLastError(kErrorNegativeSeek);
    return false;
  }

  static bool CannotAllocate(int err) {
    switch (err) {
      case EOPNOTSUPP:
#if ENOTSUP != EOPNOTSUPP
      case ENOTSUP:
#endif
      case ENOSYS:
      case EINVAL:
        return true;
      default:
        return false;
    }
  }

  // Writes zeros wherever the first `size` bytes read as a hole: past the
  // end, and in the holes below it that the file system can point out.
  bool FillHoles(off_t size) {
    static const char kZeros[65536] = {};
    struct stat st;
    if (::fstat(m_fd, &st) != 0) return Fail(errno);
    for (off_t at = 0; at < size;) {
      off_t hole = ::lseek(m_fd, at, SEEK_HOLE);
      if (hole < 0 && errno == ENXIO) {
        hole = at;  // at or past the end: a hole from here on
      } else if (hole < 0 && errno == EINVAL) {
        hole = std::max(at, st.st_size);  // holes cannot be found: all data up to the end
      } else if (hole < 0) {
        return Fail(errno);
      }
      if (hole >= size) break;
      off_t data = ::lseek(m_fd, hole, SEEK_DATA);
      if (data < 0 && errno != ENXIO && errno != EINVAL) return Fail(errno);
      if (data < 0 || data > size) data = size;
      for (off_t p = hole; p < data;) {
        const size_t count = static_cast<size_t>(std::min<off_t>(sizeof kZeros, data - p));
        const ssize_t n = ::pwrite(m_fd, kZeros, count, p);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return Fail(n < 0 ? errno : ENOSPC);
        p += n;
      }
      at = data;
    }
    return true;
  }

  bool Usable(bool allowed) {
    if (m_fd < 0) {
      SetLastError(kErrorInvalidHandle);
      return false;
    }
    if (!allowed) {
      SetLastError(kErrorAccessDenied);
      return false;
    }
    return true;
  }

  bool Fail(int err) {
    SetLastError(ErrorFromErrno(err, m_path));
    return false;
  }

  int m_fd;
  const bool m_canRead;
  const bool m_canWrite;
  const std::string m_path;
};

// Attribute words of files on a file system without extended attributes.
// They last as long as the process.
class FallbackAttributes {
 public:
  bool Get(const struct stat& st, DWORD* attributes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_words.find({st.st_dev, st.st_ino});
    if (it == m_words.end()) return false;
    *attributes = it->second;
    return true;
  }
  void Set(const struct stat& st, DWORD attributes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_words[{st.st_dev, st.st_ino}] = attributes;
  }
  void Forget(const struct stat& st) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_words.erase({st.st_dev, st.st_ino});
  }

 private:
  std::mutex m_mutex;
  std::map<std::pair<dev_t, ino_t>, DWORD> m_words;
};

class PosixEnv final : public Env {
 public:
  std::unique_ptr<File> OpenFile(const char* path, Access access, unsigned share,
                                 Disposition disposition) override {
    std::string real;
    if (!ResolvePath(path, &real)) return nullptr;
    const int create = disposition == Disposition::kOpenExisting ? 0 : O_CREAT;
    // Always read-write underneath, so that the share-mode locks can be
    // taken; the handle itself allows only the access asked for.
    int fd = ::open(real.c_str(), O_RDWR | O_CLOEXEC | create, 0666);
    if (fd < 0 && (errno == EACCES || errno == EROFS) && access == Access::kRead) {
      // A file this process may only read: its share bits go without the
      // gate, which needs a writable descriptor.
      fd = ::open(real.c_str(), O_RDONLY | O_CLOEXEC | create, 0666);
    }
    if (fd < 0) {
      SetLastError(ErrorFromErrno(errno, real));
      return nullptr;
    }
    if (!AcquireShareMode(fd, access, share)) {
      ::close(fd);
      SetLastError(kErrorSharingViolation);
      return nullptr;
    }
    if (disposition == Disposition::kCreateAlways && ::ftruncate(fd, 0) != 0) {
      SetLastError(ErrorFromErrno(errno, real));
      ::close(fd);
      return nullptr;
    }
    SetLastError(kErrorSuccess);
    return std::unique_ptr<File>(new PosixFile(fd, access, real));
  }

  bool RemoveFile(const char* path) override {
    std::string real;
    if (!ResolvePath(path, &real)) return false;
    struct stat st;
    if (::stat(real.c_str(), &st) != 0) return Fail(errno, real);
    if (S_ISDIR(st.st_mode)) return Fail(EISDIR, real);
    const int fd = ::open(real.c_str(), O_RDWR | O_CLOEXEC);
    if (fd >= 0) {
      const bool busy = IsOpenElsewhere(fd);
      ::close(fd);
      if (busy) {
        SetLastError(kErrorSharingViolation);
        return false;
      }
    }
    if (::unlink(real.c_str()) != 0) return Fail(errno, real);
    m_fallback.Forget(st);  // a new file may get the same inode
    return true;
  }

  bool MakeDirectory(const char* path) override {
    std::string real;
    if (!ResolvePath(path, &real)) return false;
    if (::mkdir(real.c_str(), 0777) != 0) return Fail(errno, real);
    return true;
  }

  bool Exists(const char* path) override {
    std::string real;
    return ResolvePath(path, &real) && ::access(real.c_str(), F_OK) == 0;
  }

  bool FileSize(const char* path, std::uint64_t* size) override {
    std::string real;
    if (!ResolvePath(path, &real)) return false;
    struct stat st;
    if (::stat(real.c_str(), &st) != 0) return Fail(errno, real);
    *size = static_cast<std::uint64_t>(st.st_size);
    return true;
  }

  DWORD GetAttributes(const char* path) override {
    std::string real;
    if (!ResolvePath(path, &real)) return kInvalidFileAttributes;
    struct stat st;
    if (::stat(real.c_str(), &st) != 0) {
      Fail(errno, real);
      return kInvalidFileAttributes;
    }
    return AttributesOf(real, st);
  }

  bool SetAttributes(const char* path, DWORD attributes) override {
    std::string real;
    if (!ResolvePath(path, &real)) return false;
    struct stat st;
    if (::stat(real.c_str(), &st) != 0) return Fail(errno, real);
    const DWORD word = attributes & kKeptAttributes;
    const unsigned char bytes[4] = {
        static_cast<unsigned char>(word), static_cast<unsigned char>(word >> 8),
        static_cast<unsigned char>(word >> 16), static_cast<unsigned char>(word >> 24)};
    if (::setxattr(real.c_str(), kAttributeName, bytes, sizeof bytes, 0) != 0) {
      // No extended attributes here: keep the word for this process.
      m_fallback.Set(st, word);
    }
    return true;
  }

  bool FindFiles(const char* pattern, std::vector<FoundFile>* found) override {
    found->clear();
    std::string dirPart = ".";
    const char* namePattern = pattern;
    for (const char* p = pattern; *p; ++p) {
      if (*p == '\\' || *p == '/') namePattern = p + 1;
    }
    if (namePattern != pattern) dirPart.assign(pattern, namePattern - pattern - 1);
    if (dirPart.size() == 2 && dirPart[1] == ':') dirPart += '\\';
    std::string dir;
    if (!ResolvePath(dirPart.c_str(), &dir)) return false;
    DIR* d = ::opendir(dir.c_str());
    if (!d) return Fail(errno == ENOENT ? ENOTDIR : errno, dir);
    while (struct dirent* entry = ::readdir(d)) {
      if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
        continue;
      }
      if (!MatchesPattern(namePattern, entry->d_name)) continue;
      const std::string full = dir + "/" + entry->d_name;
      struct stat st;
      if (::stat(full.c_str(), &st) != 0) continue;
      FoundFile file;
      file.name = entry->d_name;
      file.lastWrite = UnixMillisToStamp(std::int64_t{st.st_mtim.tv_sec} * 1000 +
                                         st.st_mtim.tv_nsec / 1000000);
      file.attributes = AttributesOf(full, st);
      file.size = static_cast<std::uint64_t>(st.st_size);
      found->push_back(std::move(file));
    }
    ::closedir(d);
    if (found->empty()) {
      SetLastError(kErrorFileNotFound);
      return false;
    }
    return true;
  }

  bool AppendText(const char* path, const char* text) override {
    std::string real;
    if (!ResolvePath(path, &real)) return false;
    const int fd = ::open(real.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return Fail(errno, real);
    const size_t length = std::strlen(text);
    size_t written = 0;
    while (written < length) {
      const ssize_t n = ::write(fd, text + written, length - written);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        const int err = n < 0 ? errno : ENOSPC;
        ::close(fd);
        return Fail(err, real);
      }
      written += static_cast<size_t>(n);
    }
    ::close(fd);
    return true;
  }

  void NowUtc(SYSTEMTIME* now) override {
    struct timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    *now = UnixMillisToStamp(std::int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000);
  }

  void MachineTimeZone(int year, TIME_ZONE_INFORMATION* zone, std::string* note) override {
    ReadMachineZone(year, zone, note);
  }

  void Sleep(DWORD milliseconds) override {
    struct timespec ts;
    ts.tv_sec = milliseconds / 1000;
    ts.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000;
    while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
  }

 private:
  // The attribute word of an existing entry.
  DWORD AttributesOf(const std::string& real, const struct stat& st) {
    DWORD word = 0;
    unsigned char bytes[4];
    if (::getxattr(real.c_str(), kAttributeName, bytes, sizeof bytes) == 4) {
      word = DWORD{bytes[0]} | DWORD{bytes[1]} << 8 | DWORD{bytes[2]} << 16 |
             DWORD{bytes[3]} << 24;
    } else {
      m_fallback.Get(st, &word);
    }
    word &= kKeptAttributes;
    if (S_ISDIR(st.st_mode)) word |= kFileAttributeDirectory;
    return word ? word : kFileAttributeNormal;
  }

  static bool Fail(int err, const std::string& path) {
    SetLastError(ErrorFromErrno(err, path));
    return false;
  }

  FallbackAttributes m_fallback;
};

}  // namespace

Env* Env::Default() {
  static Env* env = new PosixEnv;  // never destroyed: usable at exit
  return env;
}

}  // namespace platform
}  // namespace molra
