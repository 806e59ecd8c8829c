// Folding the UTC hour cells of a day record into a local day, and asking
// whether a record holds an hour of a local month.
#include "molra/molra.h"

namespace {

// The zone's whole hours, less the daylight hours when `time` lies in
// daylight time.
int ZoneHours(const TIME_ZONE_INFORMATION& zone, bool daylight) {
  const LONG bias = zone.Bias < 0 ? -zone.Bias : zone.Bias;
  int hours = static_cast<int>(bias / 60);
  if (daylight) hours += static_cast<int>(zone.DaylightBias / 60);
  return hours;
}

// Copies source columns [from, to] to the columns `shift` further on,
// first non-zero wins. Only columns 0 to 23 of a row are ever touched.
void ShiftColumns(const _tagFSBSKTBL& record, DWORD* out, int from, int to, int shift) {
  for (int c = 0; c < 16; ++c) {
    for (int s = from; s <= to; ++s) {
      const int o = s + shift;
      if (s < 0 || s > 23 || o < 0 || o > 23) continue;
      const DWORD value = record.dwHour[c][s];
      DWORD& cell = out[c * 24 + o];
      if (value != 0 && cell == 0) cell = value;
    }
  }
}

}  // namespace

void CMOLRA::GetSaveHourMinus(int side, _tagFSBSKTBL* record, DWORD* out, CTime time) {
  if (side == 0 || record == nullptr || out == nullptr) return;
  const int h = ZoneHours(m_Tzi, CheckDST(time, 0) != 0);
  // Local time runs h hours ahead: the earlier UTC day ends the local day's
  // first hours, the same date fills the rest.
  if (side < 0 && h > 0) ShiftColumns(*record, out, 24 - h, 23, h - 24);
  if (side > 0 && h < 24) ShiftColumns(*record, out, 0, 23 - h, h);
}

void CMOLRA::GetSaveHourPlus(int side, _tagFSBSKTBL* record, DWORD* out, CTime time) {
  if (side == 0 || record == nullptr || out == nullptr) return;
  const int h = ZoneHours(m_Tzi, CheckDST(time, 0) != 0);
  // Local time runs h hours behind: the same date starts the local day, the
  // later UTC day ends it.
  if (side < 0 && h < 24) ShiftColumns(*record, out, h, 23, -h);
  if (side > 0 && h > 0) ShiftColumns(*record, out, 0, h - 1, 24 - h);
}

int CMOLRA::IsEqualDay(_tagFSBSKTBL* record, SYSTEMTIME asked, SYSTEMTIME& found) {
  if (record == nullptr) return 0;
  int hit = 0;
  for (int c = 0; c < 16; ++c) {
    for (int h = 0; h < 24; ++h) {
      if (record->dwHour[c][h] == 0) continue;
      SYSTEMTIME local{};
      local.wYear = static_cast<WORD>(record->dwYear);
      local.wMonth = static_cast<WORD>(record->dwMonth);
      local.wDay = static_cast<WORD>(record->dwDay);
      local.wHour = static_cast<WORD>(h);
      ChangeSystemToLocalTime(local, 1);
      if (local.wYear == asked.wYear && local.wMonth == asked.wMonth) {
        found = local;
        hit = 1;
      }
    }
  }
  return hit;
}
