// Reads for a host that speaks local time: the stamp asked goes to UTC,
// and the stamp of a delivered chunk comes back to local time.
#pragma once

#include "molra/molra.h"

namespace molra {

template <typename Read>
LONG ReadInLocalTime(CMOLRA& store, _tagCHUNKHDR* header, unsigned char bDaylight, Read read) {
  if (header == nullptr) return FS_ERR_PARAM;
  store.ChangeLocalToSystemTime(header, bDaylight);
  const LONG result = read();
  // On a failure the header stays as the read left it, in UTC.
  if (result == FS_OK) store.ChangeSystemToLocalTime(header, bDaylight);
  return result;
}

}  // namespace molra
