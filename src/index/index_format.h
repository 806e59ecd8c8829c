// The records of a basket's chunk index (.CIN): a header and fixed-size
// tree nodes linked by file offsets, packed and little-endian.
#pragma once

#include <cstddef>
#include <cstdio>

#include "molra/records.h"

namespace molra {
constexpr DWORD kKeyLength = 20;      // "%04d%02d%02d%02d%02d%02d%04d%02d"
constexpr DWORD kMinuteKeyLength = 12;
constexpr DWORD kSecondKeyLength = 14;

// The key text of a stamp. A field too wide for its digits makes the text
// longer than 20 characters; only the first 20 are ever stored or compared.
struct KeyText {
  char text[64];
};
inline KeyText MakeKey(int year, int month, int day, int hour, int minute, int second,
                       int milliseconds, int sequence) {
  KeyText key;
  std::snprintf(key.text, sizeof key.text, "%04d%02d%02d%02d%02d%02d%04d%02d", year, month, day,
                hour, minute, second, milliseconds, sequence);
  return key;
}
}  // namespace molra

#pragma pack(push, 1)

// What a lookup hands back: where a chunk lies and what it carries.
struct _tagIDXREF {
  signed char cChannel;
  DWORD dwInfo;
  DWORD dwOffset;  // of the chunk's header in the .CDT file
};

struct _tagIDXHDR {
  char cMagic[2];  // 'Y', 'K'
  WORD wVersion;   // 256
  DWORD dwOpen;    // 1 from a fresh header until the first close
  DWORD dwRoot;
  DWORD dwEnd;     // node written last; 0: empty tree
  DWORD dwFirst;   // where First starts and Prev stops
  DWORD dwLast;    // append point for in-order keys
  DWORD dwCount;
};

struct _tagIDXNODE {
  DWORD dwParent;  // file offsets; 0 is no link, since 0 is the header
  DWORD dwLeft;
  DWORD dwRight;
  _tagIDXREF Ref;
  char cKey[20];
};

#pragma pack(pop)

static_assert(sizeof(_tagIDXREF) == 9, "_tagIDXREF is 9 bytes");
static_assert(sizeof(_tagIDXHDR) == 28, "_tagIDXHDR is 28 bytes");
static_assert(offsetof(_tagIDXHDR, dwOpen) == 4, "_tagIDXHDR layout");
static_assert(offsetof(_tagIDXHDR, dwCount) == 24, "_tagIDXHDR layout");
static_assert(sizeof(_tagIDXNODE) == 41, "_tagIDXNODE is 41 bytes");
static_assert(offsetof(_tagIDXNODE, Ref) == 12, "_tagIDXNODE layout");
static_assert(offsetof(_tagIDXNODE, cKey) == 21, "_tagIDXNODE layout");

namespace molra {
constexpr DWORD kRootOffset = sizeof(_tagIDXHDR);  // the first node, 28
constexpr DWORD kNodeSize = sizeof(_tagIDXNODE);   // 41
// The nodes an index as made has room for; no basket holds more.
constexpr DWORD kRoomNodes = (kIndexFileSize - kRootOffset) / kNodeSize;
constexpr WORD kIndexVersion = 256;
// The characters of a key that come from the stamp alone, to the
// millisecond: the two behind them count saves of equal milliseconds.
constexpr DWORD kStampChars = 18;

// Where the node in `slot` starts, the slot of a node's offset, and whether
// an offset is where a node starts.
constexpr DWORD NodeAt(DWORD slot) { return kRootOffset + slot * kNodeSize; }
constexpr DWORD NodeSlot(DWORD offset) { return (offset - kRootOffset) / kNodeSize; }
constexpr bool OnNodeBoundary(DWORD offset) {
  return offset >= kRootOffset && (offset - kRootOffset) % kNodeSize == 0;
}

// The header of an empty tree: its magic and version, nothing else.
inline _tagIDXHDR EmptyIndexHeader() {
  _tagIDXHDR header{};
  header.cMagic[0] = 'Y';
  header.cMagic[1] = 'K';
  header.wVersion = kIndexVersion;
  return header;
}
inline bool IsIndexHeader(const _tagIDXHDR& header) {
  return header.cMagic[0] == 'Y' && header.cMagic[1] == 'K' && header.wVersion == kIndexVersion;
}

// The greatest key of a day: every key of that day compares below it.
inline KeyText LastKeyOfDay(int year, int month, int day) {
  return MakeKey(year, month, day, 23, 59, 59, 9999, 99);
}
}  // namespace molra
