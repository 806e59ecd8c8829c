// The day records of a basket's .CTA file: which hours and minutes of each
// channel hold chunks, and with which event bits.
//
// A record is 93,708 bytes, yet a save needs only its date and two cells.
// Reading and writing just those bytes leaves the file exactly as reading
// and rewriting whole records would, at a fraction of the cost per save.
#include <cstddef>
#include <memory>
#include <new>

#include "disk/fs_file.h"
#include "disk/status_log.h"
#include "molra/molra.h"

using molra::detail::CFsFile;
using molra::detail::FsStatusLog;

namespace {

constexpr DWORD kRecordSize = sizeof(_tagFSBSKTBL);

DWORD HourCell(const _tagCHUNKHDR& chunk) {
  return static_cast<DWORD>(offsetof(_tagFSBSKTBL, dwHour)) +
         (static_cast<DWORD>(chunk.chChannel) * molra::kHours + chunk.stTime.wHour) * 4;
}

DWORD MinuteCell(const _tagCHUNKHDR& chunk) {
  return static_cast<DWORD>(offsetof(_tagFSBSKTBL, dwMinute)) +
         ((static_cast<DWORD>(chunk.chChannel) * molra::kHours + chunk.stTime.wHour) *
              molra::kMinutes +
          chunk.stTime.wMinute) *
             4;
}

// The merge of a chunk into a cell: an empty cell takes the chunk's whole
// word; otherwise the chunk's event bits (the top byte) join the cell's
// unless the two share one. False when the chunk brings nothing.
bool Merge(DWORD* cell, DWORD info) {
  if (*cell == 0) {
    *cell = info;
    return true;
  }
  const DWORD events = info & 0xFF000000u;
  if ((events & *cell & 0xFF000000u) != 0) return false;
  *cell |= events;
  return true;
}

}  // namespace

LONG CMOLRA::SaveFSTblInfo(LONG basket, const _tagCHUNKHDR* chunk) {
  _tagFSBSKINFO* record = basket >= 0 ? Basket(static_cast<DWORD>(basket)) : nullptr;
  if (record == nullptr || chunk == nullptr || !m_pTable) return FS_OK;
  if (chunk->chChannel < 0 || chunk->chChannel >= static_cast<signed char>(molra::kChannels) ||
      chunk->stTime.wHour >= molra::kHours || chunk->stTime.wMinute >= molra::kMinutes) {
    return FS_OK;  // no cell to mark
  }
  CFsFile& table = *m_pTable;
  const WORD year = chunk->stTime.wYear;
  const WORD month = chunk->stTime.wMonth;
  const WORD day = chunk->stTime.wDay;

  // Only records that lie whole in the file can be read, and so match.
  const DWORD whole = table.GetSize() / kRecordSize;
  const DWORD days = record->dwDays < whole ? record->dwDays : whole;
  // The date and the hour cells up to the chunk's lie at the record's
  // start: one read finds the day and its hour cell together.
  const DWORD hourCell = HourCell(*chunk);
  DWORD head[(offsetof(_tagFSBSKTBL, dwMinute)) / 4];
  const DWORD headBytes = hourCell + 4;
  for (DWORD k = 0; k < days; ++k) {
    const DWORD base = k * kRecordSize;
    if (!table.ReadAt(base, head, headBytes)) continue;
    if (head[0] != year || head[1] != month || head[2] != day) continue;
    DWORD minute = 0;
    if (!table.ReadAt(base + MinuteCell(*chunk), &minute, 4)) continue;
    // A cell whose word stays as it was needs no write.
    DWORD hour = head[hourCell / 4];
    const DWORD oldHour = hour;
    const DWORD oldMinute = minute;
    Merge(&hour, chunk->dwInfo);
    Merge(&minute, chunk->dwInfo);
    if (hour != oldHour) table.WriteAt(base + hourCell, &hour, 4);
    if (minute != oldMinute) table.WriteAt(base + MinuteCell(*chunk), &minute, 4);
    return FS_OK;
  }

  // A new day: a whole record, so that stale bytes of an earlier cycle go.
  std::unique_ptr<_tagFSBSKTBL> fresh(new (std::nothrow) _tagFSBSKTBL());
  if (!fresh) {
    FsStatusLog("SaveFSTblInfo: no memory for a new day record; the day stays unmarked");
    return FS_OK;
  }
  fresh->dwYear = year;
  fresh->dwMonth = month;
  fresh->dwDay = day;
  const int channel = chunk->chChannel;
  fresh->dwHour[channel][chunk->stTime.wHour] = chunk->dwInfo;
  fresh->dwMinute[channel][chunk->stTime.wHour][chunk->stTime.wMinute] = chunk->dwInfo;
  // A record that did not reach the file (the failure is logged) is not
  // counted: the catalogue never lists a day the table lacks.
  if (!table.WriteAt(record->dwDays * kRecordSize, fresh.get(), kRecordSize)) return FS_OK;
  record->dwFlags |= 1;
  ++record->dwDays;
  return FS_OK;
}
