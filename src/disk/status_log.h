// The status log "c:\FSDIR\status.dat": the store's one diagnostic channel.
#pragma once

// Appends "<text> year:month:day - hour:minute:second" in local time. The
// file is deleted whole once it has reached 10 MiB and starts afresh.
void FsStatusLog(char const* text);

namespace molra {
// Writes one log line in the same way to another log file.
void AppendLogLine(char const* logPath, char const* text);
// Appends `text` as it stands to a log file kept the same way: deleted
// whole once it has reached 10 MiB. Text that cannot be written is lost.
void AppendLogText(char const* logPath, char const* text);
}  // namespace molra
