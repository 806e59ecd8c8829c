// Skipping through a recording from key frame to key frame: the walk
// judges each node by its key alone and reads only the chunk it hands out.
#include <cstdlib>
#include <cstring>

#include "index/fs_index.h"
#include "molra/molra.h"
#include "playback/local_reads.h"
#include "playback/walk_limits.h"

namespace {

constexpr DWORD kKeyFrame = 0x10000;

// A key's stamp to the second; each field is read from its own digits.
SYSTEMTIME KeyStamp(const char* key) {
  // A key shorter than its 14 stamp characters reads as far as it goes.
  const size_t length = strnlen(key, molra::kSecondKeyLength);
  const auto field = [&](size_t start, size_t width) {
    char digits[8] = {};
    for (size_t i = 0; i < width && start + i < length; ++i) digits[i] = key[start + i];
    return static_cast<WORD>(std::atoi(digits));
  };
  SYSTEMTIME stamp{};
  stamp.wYear = field(0, 4);
  stamp.wMonth = field(4, 2);
  stamp.wDay = field(6, 2);
  stamp.wHour = field(8, 2);
  stamp.wMinute = field(10, 2);
  stamp.wSecond = field(12, 2);
  return stamp;
}

bool SameSecond(const SYSTEMTIME& a, const SYSTEMTIME& b) {
  return a.wYear == b.wYear && a.wMonth == b.wMonth && a.wDay == b.wDay && a.wHour == b.wHour &&
         a.wMinute == b.wMinute && a.wSecond == b.wSecond;
}

// A stamp as whole seconds in 32 bits. Anchor and candidate are read the
// same way, so only their difference counts.
DWORD Seconds(const SYSTEMTIME& stamp) {
  return static_cast<DWORD>(CTime(stamp, -1).GetTime());
}

}  // namespace

LONG CMOLRA::ReadNextData2(_tagCHUNKHDR* header, unsigned char* payload, int distance,
                           unsigned char bDaylight) {
  return molra::ReadInLocalTime(*this, header, bDaylight,
                                [&] { return ReadNextDataEx2(header, payload, distance); });
}

LONG CMOLRA::ReadPrevData2(_tagCHUNKHDR* header, unsigned char* payload, int distance,
                           unsigned char bDaylight) {
  return molra::ReadInLocalTime(*this, header, bDaylight,
                                [&] { return ReadPrevDataEx2(header, payload, distance); });
}

LONG CMOLRA::ReadNextDataEx2(_tagCHUNKHDR* header, unsigned char* payload, int distance) {
  return Skip(header, payload, distance, true);
}

LONG CMOLRA::ReadPrevDataEx2(_tagCHUNKHDR* header, unsigned char* payload, int distance) {
  return Skip(header, payload, distance, false);
}

int CMOLRA::SkipNextFrame(char* key, int channel, int distance, DWORD base) {
  return SkipFrame(key, channel, distance, base, true);
}

int CMOLRA::SkipPrevFrame(char* key, int channel, int distance, DWORD base) {
  return SkipFrame(key, channel, distance, base, false);
}

int CMOLRA::SkipFrame(const char* key, int channel, int distance, DWORD base, bool forward) {
  if (key == nullptr) return 0;
  const SYSTEMTIME stamp = KeyStamp(key);
  const signed char hitChannel = static_cast<signed char>(channel);
  const bool counted = channel == hitChannel && molra::CountsHits(hitChannel);
  if (SameSecond(stamp, m_stLastRead)) {
    // Once per channel in the anchor's second.
    if (!counted) return 0;
    ++m_ChanHits[hitChannel];
    return m_ChanHits[hitChannel] <= 1 ? 1 : 0;
  }
  std::memset(m_ChanHits, 0, sizeof m_ChanHits);
  if (counted) m_ChanHits[hitChannel] = 1;
  // Exactly `distance` seconds away qualifies; the sums wrap in 32 bits.
  const DWORD t = Seconds(stamp);
  const DWORD span = static_cast<DWORD>(distance);
  if (forward ? t < base + span : t > base - span) return 0;
  m_stLastRead = stamp;
  return 1;
}

LONG CMOLRA::Skip(_tagCHUNKHDR* header, unsigned char* payload, int distance, bool forward) {
  const DWORD base = m_stLastRead.wYear == 0 ? 0 : Seconds(m_stLastRead);
  if (!StoreOpen()) return FS_ERR_FILE;
  if (m_nMode != 1) return FS_ERR_MODE;
  if (header == nullptr) return FS_ERR_PARAM;
  if (static_cast<BYTE>(header->chChannel) != 0xFF) return FS_ERR_FILE;
  if (!Placed()) return FS_ERR_FILE;

  char key[molra::kKeyLength + 1] = {};
  _tagIDXREF ref;
  bool entered = false;
  const molra::IndexRun run(m_pIndex, molra::kWalkBlock);
  for (int moves = 0;; ++moves) {
    // The bound stops short of the next node, so that the next call judges
    // it: a key frame is never passed over unseen.
    if (moves == molra::kMaxSkipMoves) return FS_ERR_FILE;
    const LONG moved = MoveOne(forward, key, &ref, &entered);
    if (moved != FS_OK) return moved;
    if ((ref.dwInfo & kKeyFrame) == 0) continue;
    if (!SkipFrame(key, ref.cChannel, distance, base, forward)) continue;
    return ReadOut(ref, header, payload, ReadKind::kSkip, false);
  }
}
