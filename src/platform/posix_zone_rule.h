// The machine's zone as the tz database and the TZ variable state it,
// read into the recurring zone record that the store converts with.
#pragma once

#include <string>

#include "molra/types.h"

namespace molra {
namespace platform {

// Parses a POSIX zone rule ("EST5EDT,M3.2.0,M11.1.0", "<+0545>-5:45",
// "IST-2IDT,M3.4.4/26,M10.5.0") into all 172 bytes of `zone`. A change
// that the recurring form cannot hold (a Julian day, another weekday than
// Sunday, a time off the whole hour or outside 0 to 23) is fitted to the
// changes of `year` and explained in one line in `note`; otherwise `note`
// is left empty. False, with `zone` untouched, when `text` is no whole rule.
bool ParsePosixZoneRule(const std::string& text, int year, TIME_ZONE_INFORMATION* zone,
                        std::string* note);

// The rule string that ends a version 2 or later zone file. False when
// `bytes` is no zone file. A version 1 file or an empty rule leaves
// `footer` empty and gives, in `fixedBias` (minutes west of UTC) and
// `fixedName`, the file's last standard time, for a zone without changes.
bool ReadZoneFileFooter(const std::string& bytes, std::string* footer, LONG* fixedBias,
                        std::string* fixedName);

}  // namespace platform
}  // namespace molra
