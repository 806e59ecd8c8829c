// Share modes between handles of one file on POSIX, in one process or in
// several, as the original platform enforces them: a handle that does not
// share reading makes every other open for reading fail, and the reverse,
// and likewise for writing.
//
// Each open file description carries its access and deny bits as shared
// open-file-description locks on single bytes far beyond any file's end,
// so the file itself never changes and the bits vanish with the last
// close, also when a process dies. A short exclusive lock on a gate byte
// makes the check and the taking of the bits one step.
#pragma once

#include "platform/env.h"

namespace molra {
namespace platform {

// Takes the bits of a new handle on `fd`, which must be open for reading
// and writing. False when they clash with another handle's bits.
bool AcquireShareMode(int fd, Access access, unsigned share);

// True while another handle has the file of `fd` open through
// AcquireShareMode.
bool IsOpenElsewhere(int fd);

}  // namespace platform
}  // namespace molra
