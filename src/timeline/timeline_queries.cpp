// The timeline: which local days of a month, which hours of a UTC day and
// which minutes of a local hour hold recordings, answered from the day
// records of the baskets and the catalogue alone.
#include <cstdio>
#include <cstring>

#include "molra/molra.h"
#include "time/zone_clock.h"
#include "timeline/day_record_reader.h"

using molra::detail::CZoneClock;

namespace {

SYSTEMTIME Stamp(LONG year, LONG month, LONG day, LONG hour = 0) {
  SYSTEMTIME stamp{};
  stamp.wYear = static_cast<WORD>(year);
  stamp.wMonth = static_cast<WORD>(month);
  stamp.wDay = static_cast<WORD>(day);
  stamp.wHour = static_cast<WORD>(hour);
  return stamp;
}

// Records a basket lists that its table holds whole.
DWORD Readable(const _tagFSBSKINFO& record, const molra::DayRecordReader& table) {
  return record.dwDays < table.Records() ? record.dwDays : table.Records();
}

// First non-zero wins: a cell that holds a value keeps it.
void Merge(DWORD* out, DWORD value) {
  if (*out == 0) *out = value;
}

bool SameDate(const DWORD date[3], const SYSTEMTIME& day) {
  return date[0] == day.wYear && date[1] == day.wMonth && date[2] == day.wDay;
}

}  // namespace

LONG CMOLRA::TimelineStart() {
  if (!StoreOpen()) return FS_ERR_FILE;
  if (m_nMode != 1) return FS_ERR_MODE;
  // A recording made meanwhile counts at once.
  LoadFSInfo(-1);
  return FS_OK;
}

bool CMOLRA::HoldsAt(DWORD basket, const SYSTEMTIME& time, LONG level) {
  const _tagFSBSKINFO* record = Basket(basket);
  if (record == nullptr) return false;
  const SYSTEMTIME first = record->stFirst;
  const SYSTEMTIME last = record->stLast;
  return CompareSystemTime(&time, &first, level) >= 0 &&
         CompareSystemTime(&time, &last, level) <= 0;
}

LONG CMOLRA::GetSaveDateInfo(LONG year, LONG month, int* days, LONG count) {
  if (days == nullptr || count < 0) return FS_ERR_PARAM;
  std::memset(days, 0, sizeof(int) * static_cast<size_t>(count));
  const LONG start = TimelineStart();
  if (start != FS_OK) return start;
  const SYSTEMTIME asked = Stamp(year, month, 0);
  // The caller's array has room for every day of the month asked.
  const int monthDays = CZoneClock::LastDayOfMonth(asked.wYear, asked.wMonth);
  const auto isSet = [&](WORD day) { return day >= 1 && day <= count && days[day - 1] != 0; };
  bool remembered = false;
  SYSTEMTIME lastFirst{};
  SYSTEMTIME lastLast{};
  const DWORD baskets = m_FsHdr.dwBaskets;
  for (DWORD n = 0; n < baskets; ++n) {
    const _tagFSBSKINFO* record = Basket((m_FsHdr.dwCurrent + n) % baskets);
    if (record == nullptr) continue;
    SYSTEMTIME first = record->stFirst;
    SYSTEMTIME last = record->stLast;
    ChangeSystemToLocalTime(first, 1);
    ChangeSystemToLocalTime(last, 1);
    if (isSet(first.wDay) && isSet(last.wDay)) continue;
    if (CompareSystemTime(&asked, &first, kByMonth) < 0 ||
        CompareSystemTime(&asked, &last, kByMonth) > 0) continue;
    const auto sameDay = [](const SYSTEMTIME& a, const SYSTEMTIME& b) {
      return a.wYear == b.wYear && a.wMonth == b.wMonth && a.wDay == b.wDay;
    };
    if (remembered && sameDay(first, lastFirst) && sameDay(last, lastLast)) continue;

    molra::DayRecordReader table;
    if (table.Open(record->szPath)) {
      molra::DayRecordReader::Head head;
      for (DWORD k = 0; k < Readable(*record, table); ++k) {
        if (!table.ReadHead(k, &head)) continue;
        // Each hour that holds something marks the local day it falls on.
        for (int channel = 0; channel < 16; ++channel) {
          for (int hour = 0; hour < 24; ++hour) {
            if (head.dwHour[channel][hour] == 0) continue;
            SYSTEMTIME local = Stamp(static_cast<LONG>(head.dwYear), static_cast<LONG>(head.dwMonth),
                                     static_cast<LONG>(head.dwDay), hour);
            ChangeSystemToLocalTime(local, 1);
            // A month longer than the caller's array marks only what fits.
            if (local.wYear == asked.wYear && local.wMonth == asked.wMonth && local.wDay >= 1 &&
                local.wDay <= monthDays && local.wDay <= count) {
              days[local.wDay - 1] = 1;
            }
          }
        }
      }
    }
    remembered = true;
    lastFirst = first;
    lastLast = last;
  }
  return FS_OK;
}

LONG CMOLRA::GetSaveTimeInfo(LONG year, LONG month, LONG day, LONG /*unused*/, DWORD* cells,
                             CWnd* progress) {
  if (cells == nullptr) return FS_ERR_PARAM;
  std::memset(cells, 0, 16 * 24 * sizeof(DWORD));
  const LONG start = TimelineStart();
  if (start != FS_OK) return start;
  const DWORD baskets = m_FsHdr.dwBaskets;
  if (baskets == 0) return FS_OK;
  const SYSTEMTIME asked = Stamp(year, month, day);

  DWORD i = 0;
  while (i < baskets && !HoldsAt((m_FsHdr.dwOldest + i) % baskets, asked, kByDay)) ++i;
  if (i == baskets) return FS_OK;
  // Baskets that marked new hours tell which ones to read, when any does.
  bool restricted = false;
  for (DWORD j = i; j < baskets && !restricted; ++j) {
    const DWORD b = (m_FsHdr.dwOldest + j) % baskets;
    const _tagFSBSKINFO* record = Basket(b);
    restricted = record != nullptr && (record->dwFlags & 1) != 0 && HoldsAt(b, asked, kByDay);
  }
  for (; i < baskets; ++i) {
    const DWORD b = (m_FsHdr.dwOldest + i) % baskets;
    if (progress != nullptr) {
      char text[16];
      std::snprintf(text, sizeof text, "%d",
                    static_cast<int>((static_cast<double>(i + 1) / baskets) * 100));
      progress->SetWindowText(text);
    }
    if (!HoldsAt(b, asked, kByDay)) break;
    const _tagFSBSKINFO* record = Basket(b);
    if (restricted && (record->dwFlags & 1) == 0) continue;
    molra::DayRecordReader table;
    if (!table.Open(record->szPath)) continue;
    molra::DayRecordReader::Head head;
    for (DWORD k = 0; k < Readable(*record, table); ++k) {
      if (!table.ReadHead(k, &head)) continue;
      const DWORD date[3] = {head.dwYear, head.dwMonth, head.dwDay};
      if (!SameDate(date, asked)) continue;
      for (int c = 0; c < 16; ++c) {
        for (int h = 0; h < 24; ++h) Merge(&cells[c * 24 + h], head.dwHour[c][h]);
      }
    }
  }
  return FS_OK;
}

LONG CMOLRA::GetSaveMinuteInfo(LONG year, LONG month, LONG day, LONG hour, LONG /*unused*/,
                               LONG channel, DWORD* cells, int bDaylight) {
  if (cells != nullptr) std::memset(cells, 0, 60 * sizeof(DWORD));
  if (cells == nullptr || channel < 0 || channel > 15 || hour < 0 || hour > 23) return FS_ERR_PARAM;
  if (!StoreOpen()) return FS_ERR_FILE;
  if (m_nMode != 1) return FS_ERR_MODE;
  SYSTEMTIME utc = Stamp(year, month, day, hour);
  ChangeLocalToSystemTime(utc, bDaylight);
  const LONG start = TimelineStart();
  if (start != FS_OK) return start;
  const DWORD baskets = m_FsHdr.dwBaskets;
  if (baskets == 0 || utc.wHour > 23) return FS_OK;

  DWORD i = 0;
  while (i < baskets && !HoldsAt((m_FsHdr.dwOldest + i) % baskets, utc, kByHour)) ++i;
  for (; i < baskets; ++i) {
    const DWORD b = (m_FsHdr.dwOldest + i) % baskets;
    if (!HoldsAt(b, utc, kByHour)) break;
    const _tagFSBSKINFO* record = Basket(b);
    molra::DayRecordReader table;
    if (!table.Open(record->szPath)) continue;
    DWORD date[3];
    DWORD minutes[60];
    for (DWORD k = 0; k < Readable(*record, table); ++k) {
      if (!table.ReadDate(k, date) || !SameDate(date, utc)) continue;
      if (!table.ReadMinutes(k, static_cast<int>(channel), utc.wHour, minutes)) continue;
      for (int m = 0; m < 60; ++m) Merge(&cells[m], minutes[m]);
    }
  }
  return FS_OK;
}
