#include "platform/posix_share_modes.h"

#include <fcntl.h>

#include <cerrno>

namespace molra {
namespace platform {
namespace {

constexpr off_t kBase = off_t{1} << 62;

enum Slot : off_t {
  kGate = 0,
  kHasRead = 1,
  kHasWrite = 2,
  kDeniesRead = 3,
  kDeniesWrite = 4,
};

bool Lock(int fd, short type, off_t slot, bool wait) {
  struct flock fl = {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = kBase + slot;
  fl.l_len = 1;
  int rc;
  do {
    rc = ::fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &fl);
  } while (rc != 0 && errno == EINTR);
  return rc == 0;
}

// True when another open file description holds a lock on [slot, slot+len).
bool Held(int fd, off_t slot, off_t len = 1) {
  struct flock fl = {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = kBase + slot;
  fl.l_len = len;
  if (::fcntl(fd, F_OFD_GETLK, &fl) != 0) return false;
  return fl.l_type != F_UNLCK;
}

}  // namespace

bool AcquireShareMode(int fd, Access access, unsigned share) {
  const bool wantsRead = access != Access::kWrite;
  const bool wantsWrite = access != Access::kRead;
  const bool deniesRead = (share & kShareRead) == 0;
  const bool deniesWrite = (share & kShareWrite) == 0;

  const bool gated = Lock(fd, F_WRLCK, kGate, true);
  const bool clash = (wantsRead && Held(fd, kDeniesRead)) ||
                     (wantsWrite && Held(fd, kDeniesWrite)) ||
                     (deniesRead && Held(fd, kHasRead)) ||
                     (deniesWrite && Held(fd, kHasWrite));
  if (!clash) {
    if (wantsRead) Lock(fd, F_RDLCK, kHasRead, false);
    if (wantsWrite) Lock(fd, F_RDLCK, kHasWrite, false);
    if (deniesRead) Lock(fd, F_RDLCK, kDeniesRead, false);
    if (deniesWrite) Lock(fd, F_RDLCK, kDeniesWrite, false);
  }
  if (gated) Lock(fd, F_UNLCK, kGate, false);
  return !clash;
}

bool IsOpenElsewhere(int fd) { return Held(fd, kHasRead, 2); }

}  // namespace platform
}  // namespace molra
