// The values on molra's command line, each checked before any store is
// touched: a problem comes back as the words for the error line.
#pragma once

#include <string>

#include "molra/types.h"

namespace molra_tools {

// "D:N": N baskets on drive D.
struct DriveCount {
  char letter = 0;  // 'A' to 'Z'
  LONG count = 0;   // 1 or more
};

// A UTC day, "YYYY-MM-DD".
struct Day {
  int year = 0;
  int month = 0;
  int day = 0;
};

// Each answers "" and fills `out`, or the problem.
std::string ParseDriveCount(const std::string& text, DriveCount* out);
std::string ParseDay(const std::string& text, Day* out);
// A UTC time "YYYY-MM-DD HH:MM:SS" (a T may stand for the space), with up
// to three digits of a fraction of the second: milliseconds since 1970.
std::string ParseUtcTime(const std::string& text, long long* out);
// Frames a second: a decimal number above 0, 1000 at most (the stamps'
// grain is the millisecond).
std::string ParseFrameRate(const std::string& text, double* out);
// A video file to write, by its ending: the libavformat muxer for it
// ("mp4", "mov", "matroska", "mpegts").
std::string ParseVideoFile(const std::string& text, std::string* muxer);

}  // namespace molra_tools
