// Moving the host's stamps between local time and UTC with the clock.
#include <cstring>

#include "molra/molra.h"
#include "time/zone_clock.h"

namespace {

// The header's stamp sits unaligned in the packed record: work on a copy.
template <typename Convert>
void OnHeaderStamp(_tagCHUNKHDR* header, Convert convert) {
  SYSTEMTIME stamp;
  std::memcpy(&stamp, &header->stTime, sizeof stamp);
  convert(&stamp);
  std::memcpy(&header->stTime, &stamp, sizeof stamp);
}

}  // namespace

LONG CMOLRA::ChangeLocalToSystemTime(_tagCHUNKHDR* header, int bDaylight) {
  if (m_pClock && header) {
    OnHeaderStamp(header, [&](SYSTEMTIME* st) { m_pClock->LocalToSystem(st, bDaylight); });
  }
  return 0;
}

LONG CMOLRA::ChangeLocalToSystemTime(SYSTEMTIME& stamp, int bDaylight) {
  if (m_pClock) m_pClock->LocalToSystem(&stamp, bDaylight);
  return 0;
}

// A chunk always goes back to local time with the daylight window.
LONG CMOLRA::ChangeSystemToLocalTime(_tagCHUNKHDR* header, int /*bDaylight*/) {
  if (m_pClock && header) {
    OnHeaderStamp(header, [&](SYSTEMTIME* st) { m_pClock->SystemToLocal(st, 1); });
  }
  return 0;
}

LONG CMOLRA::ChangeSystemToLocalTime(SYSTEMTIME& stamp, int bDaylight) {
  if (m_pClock) m_pClock->SystemToLocal(&stamp, bDaylight);
  return 0;
}
