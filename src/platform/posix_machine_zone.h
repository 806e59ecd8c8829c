// The machine's zone on a POSIX system: the TZ variable, else the local
// zone file, read into the recurring zone record.
#pragma once

#include <string>

#include "molra/types.h"

namespace molra {
namespace platform {

// `year` is the year that a rule beyond the recurring form is fitted to;
// `note` receives a line saying so, or why UTC stands in.
void ReadMachineZone(int year, TIME_ZONE_INFORMATION* zone, std::string* note);

}  // namespace platform
}  // namespace molra
