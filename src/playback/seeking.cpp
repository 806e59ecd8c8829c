// Finding the chunk of a minute or a second: the basket of the ring that
// holds it, then the index of that basket.
#include <cstdint>
#include <memory>

#include "index/fs_index.h"
#include "molra/molra.h"
#include "playback/local_reads.h"
#include "playback/walk_limits.h"

using molra::detail::CFsIndex;

namespace {

SYSTEMTIME Stamp(LONG year, LONG month, LONG day, LONG hour, LONG minute, LONG second) {
  SYSTEMTIME stamp{};
  stamp.wYear = static_cast<WORD>(year);
  stamp.wMonth = static_cast<WORD>(month);
  stamp.wDay = static_cast<WORD>(day);
  stamp.wHour = static_cast<WORD>(hour);
  stamp.wMinute = static_cast<WORD>(minute);
  stamp.wSecond = static_cast<WORD>(second);
  return stamp;
}

}  // namespace

LONG CMOLRA::FindFirstBskDate(LONG year, LONG month, LONG day, LONG hour, LONG minute) {
  if (!StoreOpen()) return -1;
  const DWORD baskets = m_FsHdr.dwBaskets;
  if (baskets == 0) return -1;
  const SYSTEMTIME time = Stamp(year, month, day, hour, minute, 0);
  const DWORD current = m_FsHdr.dwCurrent;
  // The ring from the oldest side round to the current basket, which
  // comes last: a minute two baskets share is played from the older.
  for (DWORD n = 1; n <= baskets; ++n) {
    const DWORD b = static_cast<DWORD>((std::uint64_t{current} + n) % baskets);
    if (HoldsAt(b, time, kByMinute)) return static_cast<LONG>(b);
  }
  return -1;
}

LONG CMOLRA::FindFirstBskDateSec(LONG year, LONG month, LONG day, LONG hour, LONG minute,
                                 LONG second) {
  if (!StoreOpen()) return -1;
  const DWORD baskets = m_FsHdr.dwBaskets;
  if (baskets == 0) return -1;
  const SYSTEMTIME time = Stamp(year, month, day, hour, minute, second);
  // The current basket first: a second two baskets share is played from it.
  for (DWORD n = 0; n < baskets; ++n) {
    const DWORD b = static_cast<DWORD>((std::uint64_t{m_FsHdr.dwCurrent} + n) % baskets);
    if (HoldsAt(b, time, kBySecond)) return static_cast<LONG>(b);
  }
  return -1;
}

LONG CMOLRA::ReadData(_tagCHUNKHDR* header, unsigned char* payload, unsigned char bDaylight) {
  return molra::ReadInLocalTime(*this, header, bDaylight, [&] {
    // Second 0 asks for the minute: any second of it may answer.
    return header->stTime.wSecond != 0 ? ReadDataEx2(header, payload)
                                       : ReadDataEx(header, payload);
  });
}

LONG CMOLRA::ReadDataEx(_tagCHUNKHDR* header, unsigned char* payload) {
  return Seek(header, payload, false);
}

LONG CMOLRA::ReadDataEx2(_tagCHUNKHDR* header, unsigned char* payload) {
  return Seek(header, payload, true);
}

LONG CMOLRA::Seek(_tagCHUNKHDR* header, unsigned char* payload, bool toSecond) {
  if (!StoreOpen()) return FS_ERR_FILE;
  if (m_nMode != 1) return FS_ERR_MODE;
  if (header == nullptr) return FS_ERR_PARAM;
  const SYSTEMTIME t = header->stTime;
  LONG basket = toSecond ? FindFirstBskDateSec(t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
                                               t.wSecond)
                         : FindFirstBskDate(t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute);
  if (basket < 0) return FS_ERR_FILE;

  molra::KeyText key = molra::MakeKey(t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
                                      toSecond ? t.wSecond : 0, 0, 0);
  const molra::KeyText endKey = molra::MakeKey(t.wYear, t.wMonth, t.wDay, 23, 59, 59, 9999, 99);
  const int prefix = static_cast<int>(toSecond ? molra::kSecondKeyLength
                                               : molra::kMinuteKeyLength);
  const signed char wanted = header->chChannel;
  // A second seek is cancelled only where a basket is opened.
  const auto cancelled = [&] { return !toSecond && m_lExit.load() != 0; };
  if (cancelled()) return FS_ERR_FILE;

  // Each basket is visited once at most, whatever a damaged ring says.
  for (DWORD turns = 0; turns < m_FsHdr.dwBaskets; ++turns) {
    // Reopened even when open already: the index is read afresh.
    if (OpenBsk(basket) == FS_ERR_INDEX) return FS_ERR_INDEX;
    m_nOpenBasket = basket;
    // Held across the walk: a message step of the host may close the store.
    const std::shared_ptr<CFsIndex> index = m_pIndex;
    if (!index) return FS_ERR_FILE;
    _tagIDXREF ref;
    if (!index->Find(key.text, &ref, prefix)) return FS_ERR_FILE;
    if (wanted == -1) return ReadOut(ref, header, payload, ReadKind::kSeek, false);
    // Past the day asked: only a walk from an earlier basket can get here.
    if (CFsIndex::CompareKey(key.text, endKey.text, -1) > 0) return FS_ERR_FILE;
    if (ref.cChannel == wanted) return ReadOut(ref, header, payload, ReadKind::kSeek, false);

    // The first chunk of the channel behind the node found, wherever it
    // lies in this basket.
    const molra::IndexRun run(index, molra::kWalkBlock);
    molra::MoveBudget budget;
    for (;;) {
      if (cancelled()) return FS_ERR_FILE;
      if (!budget.Spend(*index) || !index->Next(key.text, &ref)) break;
      if (ref.cChannel == wanted) return ReadOut(ref, header, payload, ReadKind::kSeek, false);
    }
    // The next basket goes on only if it holds the minute (or second) the
    // walk ended on.
    if (m_FsHdr.dwBaskets == 0) return FS_ERR_FILE;
    basket = static_cast<LONG>((static_cast<DWORD>(basket) + 1) % m_FsHdr.dwBaskets);
    if (cancelled()) return FS_ERR_FILE;
  }
  return FS_ERR_FILE;
}
