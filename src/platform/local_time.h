// Local time in the store's zone, as the platform's runtime reads it.
//
// The store's zone is the host's (SetTimeZone) or else the machine's, in
// the recurring form: a standard bias and, when the two rule dates differ,
// a daylight change on the Nth Sunday of a month at a given hour, the same
// rule in every year. The daylight change is named in standard time and
// the change back in daylight time.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "molra/types.h"

namespace molra {
namespace platform {

// The store's zone. `note`, when given, receives a line for the status
// log when the machine's rule had to be fitted to the recurring form.
void GetTimeZoneInformation(TIME_ZONE_INFORMATION* zone, std::string* note = nullptr);

// True when the zone has a daylight rule that can be applied.
bool ZoneHasRule(const TIME_ZONE_INFORMATION& zone);

// Seconds since the epoch of local fields, normalised as a runtime does
// (hour 26 is 02:00 of the next day). `isDst` 0 reads the fields as
// standard time, above 0 as daylight time, below 0 as the rule says: the
// daylight change's hour and later up to the rule hour of the change back.
std::int64_t LocalFieldsToUnix(const TIME_ZONE_INFORMATION& zone, std::int64_t year,
                               std::int64_t month, std::int64_t day, std::int64_t hour,
                               std::int64_t minute, std::int64_t second, int isDst);

// The local reading of an instant, with daylight time applied.
void UnixToLocalTm(const TIME_ZONE_INFORMATION& zone, std::int64_t seconds, std::tm* out);

}  // namespace platform
}  // namespace molra
