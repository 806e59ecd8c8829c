// The status log "c:\FSDIR\status.dat": the store's one diagnostic channel.
#pragma once

#include "molra/types.h"

// Appends "<text> year:month:day - hour:minute:second" in local time. The
// file is deleted whole once it has reached 10 MiB and starts afresh.
namespace molra {
namespace detail {
void FsStatusLog(char const* text);
}  // namespace detail
}  // namespace molra

namespace molra {
// One line for a failed disk operation: "fail to <operation> <path> at
// <offset> : error <error>", the error in the platform's numbering.
void LogIoFailure(const char* operation, const char* path, DWORD offset, DWORD error);
// Writes one log line in the same way to another log file.
void AppendLogLine(char const* logPath, char const* text);
// Appends `text` as it stands to a log file kept the same way: deleted
// whole once it has reached 10 MiB. Text that cannot be written is lost.
void AppendLogText(char const* logPath, char const* text);
}  // namespace molra
