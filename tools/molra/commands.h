// The subcommands of the molra program. Each runs after the command line
// has been read and the drive roots set, and answers the exit code.
#pragma once

#include <string>
#include <vector>

#include "arguments.h"
#include "molra/types.h"

namespace molra_tools {

// Exit codes: done; the store is damaged, the check found faults, nothing
// was found, or a record or export stopped part way; the command line, the
// store or the input was refused, and nothing was stored or written.
constexpr int kExitOk = 0;
constexpr int kExitFound = 1;
constexpr int kExitRefused = 2;

int RunCreate(const std::vector<DriveCount>& drives, bool extend);
int RunInfo(bool json);
int RunVerify(bool json);
// channel and hour -1: the hour grid of the day; else one channel's minutes.
int RunTimeline(const Day& day, int channel, int hour, bool json);
int RunRetain(unsigned days);
// A stream into channel `channel`, the first frame stamped `start` (UTC
// milliseconds), the next ones 1/fps second apart. FILE "-" is standard input.
int RunRecord(int channel, double fps, long long start, const std::string& file);
// The chunks of [from, to) into a video file; built with libavformat only.
int RunExport(int channel, long long from, long long to, const std::string& path);

// Shared by the subcommands.

// The one line of a refusal ("molra: ..." on standard error); kExitRefused.
int Refuse(const std::string& problem);
// Whether the catalogue is there, asked without making it (a load would).
bool CatalogueExists();
// "YYYY-MM-DD HH:MM:SS"; "" for an empty stamp (year 0).
std::string Stamp(const SYSTEMTIME& stamp);
// Up to `size` bytes of a fixed text field up to its terminator, with
// bytes that are not printable ASCII shown as '?' (a damaged record must
// not upset a terminal or a JSON reader).
std::string Printable(const char* text, size_t size);

constexpr const char* kCataloguePath = "C:\\FSDIR\\MOLRA.CFT";
constexpr const char* kStatusLogPath = "C:\\FSDIR\\status.dat";

}  // namespace molra_tools
