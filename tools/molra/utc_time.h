// UTC stamps as milliseconds since 1970-01-01 00:00:00, the grain of the
// store's chunk stamps.
#pragma once

#include <string>

#include "molra/types.h"

namespace molra_tools {

// By value: stamps lie unaligned in the packed records.
long long MillisecondsOf(SYSTEMTIME stamp);
// Years 1 to 9999.
SYSTEMTIME StampAt(long long milliseconds);
// "YYYY-MM-DD HH:MM:SS.mmm".
std::string MillisecondText(long long milliseconds);
// The clock now.
long long NowMilliseconds();

}  // namespace molra_tools
