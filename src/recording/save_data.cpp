// Saving a chunk: the one road by which recordings enter the store. The
// order of the writes (chunk bytes, index node, parent link, index header,
// data head, day table, catalogue) is what a power cut leaves intact.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "disk/fs_file.h"
#include "index/fs_index.h"
#include "molra/molra.h"

namespace {

// Room kept free at the end of a data file; the test's sum adds 4.
constexpr DWORD kRolloverMargin = 0x104800;
constexpr DWORD kSumExtra = 4;
// A basket takes chunks while it holds at most this many.
constexpr DWORD kMaxChunks = 70000;

// The key's sequence: counts saves whose milliseconds equal the last
// save's, across channels, seconds and objects of the process. Both values
// live in one word so that each save moves them together.
std::atomic<std::uint64_t> g_sequence{0};  // high: counter, low 16: last ms

DWORD NextSequence(WORD milliseconds) {
  std::uint64_t seen = g_sequence.load();
  for (;;) {
    const WORD last = static_cast<WORD>(seen & 0xFFFF);
    const DWORD counter = last == milliseconds ? static_cast<DWORD>(seen >> 16) + 1 : 0;
    const std::uint64_t next = std::uint64_t{counter} << 16 | milliseconds;
    if (g_sequence.compare_exchange_weak(seen, next)) return counter;
  }
}

bool InRange(const _tagCHUNKHDR& chunk) {
  return chunk.chChannel >= 0 && chunk.chChannel < static_cast<signed char>(molra::kChannels) &&
         chunk.stTime.wMonth >= 1 && chunk.stTime.wMonth <= 12 && chunk.stTime.wDay >= 1 &&
         chunk.stTime.wDay <= 31 && chunk.stTime.wHour < molra::kHours &&
         chunk.stTime.wMinute < molra::kMinutes;
}

}  // namespace

LONG CMOLRA::SaveData(_tagCHUNKHDR* chunk, const void* payload, DWORD* remaining, int /*unused*/) {
  if (m_nMode != 0) return FS_ERR_MODE;
  if (!m_pData || !m_pIndex || !m_pTable) return FS_ERR_FILE;
  // A payload longer than a reader accepts could never be played.
  if (chunk == nullptr || !InRange(*chunk) || chunk->dwLength > molra::kMaxChunkLength ||
      (payload == nullptr && chunk->dwLength != 0)) {
    return FS_ERR_PARAM;
  }
  const SYSTEMTIME stamp = chunk->stTime;
  const DWORD length = chunk->dwLength;

  const molra::KeyText keyText =
      molra::MakeKey(stamp.wYear, stamp.wMonth, stamp.wDay, stamp.wHour, stamp.wMinute,
                     stamp.wSecond, stamp.wMilliseconds,
                     static_cast<int>(NextSequence(stamp.wMilliseconds)));
  const char* key = keyText.text;

  // The sum runs 26 bytes short of the chunk's true end. It cannot wrap:
  // a write position past the end of the file, or before its first
  // chunk, is a damaged basket, which is left for the next.
  const std::uint64_t sum = std::uint64_t{length} + m_DataHdr.dwWritePos + kSumExtra;
  bool rollOver = sum + kRolloverMargin >= molra::kDataFileSize ||
                  m_DataHdr.dwWritePos < sizeof m_DataHdr;
  if (!rollOver) {
    _tagFSBSKINFO* basket = Basket(m_FsHdr.dwCurrent);
    if (basket == nullptr) return FS_ERR_INDEX;
    if (basket->dwChunks > kMaxChunks) {
      rollOver = true;
    } else if (basket->dwChunks == 0) {
      // The first chunk of a basket that was never rolled into.
      basket->stFirst = stamp;
      basket->stLast = stamp;
      basket->dwReserved = 0;
      basket->dwChunks = 0;
      basket->dwDays = 0;
      basket->dwFlags = 1;
    }
  }
  if (rollOver) {
    const LONG moved = RollOver();
    if (moved != FS_OK) return moved;
    _tagFSBSKINFO* basket = Basket(m_FsHdr.dwCurrent);
    basket->dwReserved = 0;
    basket->dwChunks = 0;
    basket->dwDays = 0;
    basket->dwFlags = 0;
    basket->stFirst = stamp;
    basket->stLast = stamp;
  }
  _tagFSBSKINFO* basket = Basket(m_FsHdr.dwCurrent);
  if (basket == nullptr) return FS_ERR_INDEX;

  // A channel entering a new hour (the minute does not count).
  SYSTEMTIME& last = m_LastSaved[static_cast<int>(chunk->chChannel)];
  if (last.wHour != stamp.wHour || last.wDay != stamp.wDay || last.wMonth != stamp.wMonth ||
      last.wYear != stamp.wYear) {
    basket->dwFlags |= 1;
    last = stamp;
  }

  const DWORD offset = m_DataHdr.dwWritePos;
  if (!m_pData->WriteAt(offset, chunk, sizeof *chunk)) return FS_ERR_MODE;
  if (length != 0 && !m_pData->WriteAt(offset + static_cast<DWORD>(sizeof *chunk), payload, length)) {
    return FS_ERR_MODE;
  }

  _tagIDXREF ref;
  ref.cChannel = chunk->chChannel;
  ref.dwInfo = chunk->dwInfo;
  ref.dwOffset = offset;
  if (!m_pIndex->Insert(key, ref)) return FS_ERR_MODE;

  m_DataHdr.dwWritePos = offset + length + static_cast<DWORD>(sizeof(_tagCHUNKHDR));
  m_pData->WriteAt(0, &m_DataHdr, sizeof m_DataHdr);
  if (remaining) *remaining = molra::kDataFileSize - m_DataHdr.dwWritePos;

  SaveFSTblInfo(static_cast<LONG>(m_FsHdr.dwCurrent), chunk);
  ++basket->dwChunks;
  const SYSTEMTIME first = basket->stFirst;
  const SYSTEMTIME latest = basket->stLast;
  if (CompareSystemTime(&stamp, &first, kByMillisecond) < 0) basket->stFirst = stamp;
  if (CompareSystemTime(&stamp, &latest, kByMillisecond) > 0) basket->stLast = stamp;
  // After a rollover the new basket's record goes before the head that
  // names it current: a head written alone would lead the next open into
  // the last cycle's record.
  SaveCatalogue(static_cast<LONG>(m_FsHdr.dwCurrent), rollOver);
  FlushIfDue();

  if (sum >= molra::kDataFileSize) {
    m_bFull = 1;
    for (DWORD& flag : m_bIFrame) flag = 1;
  }
  return FS_OK;
}
