// The machine's zone on Windows: the system's own zone record, held in
// the recurring form that the store converts with.
#pragma once

#include <string>

#include "molra/types.h"

namespace molra {
namespace platform {

// `year` is the year that a change beyond the recurring form is fitted
// to; `note` receives a line saying so, or why UTC stands in.
void ReadMachineZone(int year, TIME_ZONE_INFORMATION* zone, std::string* note);

// The recurring form of a record as the system reports it. A change on
// another weekday than Sunday, off the whole hour, or on a fixed date is
// fitted to the changes of `year`, with a line in `note`; the rest of the
// record stays as reported.
void FitZoneRecord(const TIME_ZONE_INFORMATION& reported, int year,
                   TIME_ZONE_INFORMATION* zone, std::string* note);

}  // namespace platform
}  // namespace molra
