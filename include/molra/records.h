// The records of the store, byte for byte as they lie on disk.
//
// All records are packed without alignment and little-endian; several
// have multi-byte fields at odd offsets. A record is always read and
// written as one block of its full size.
#pragma once

#include <cstddef>

#include "molra/types.h"

#if defined(__BYTE_ORDER__) && defined(__ORDER_LITTLE_ENDIAN__)
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the store's records are little-endian and are read as raw blocks");
#endif

// Result codes of the class.
enum : LONG {
  FS_OK = 0,
  FS_ERR_CATALOG = 1,
  FS_ERR_PARAM = 2,
  FS_ERR_CREATE = 3,
  FS_ERR_CANCEL = 4,
  FS_ERR_MEMORY = 5,
  FS_ERR_FILE = 6,
  FS_ERR_INDEX = 7,
  FS_ERR_MODE = 8,
  FS_END_OF_DATA = 9,
  FS_BEGIN_OF_DATA = 10,
};

// Constants of the store.
namespace molra {
constexpr DWORD kChannels = 16;
constexpr DWORD kHours = 24;
constexpr DWORD kMinutes = 60;
constexpr DWORD kDataFileSize = 67108864;   // .CDT, 64 MiB
constexpr DWORD kIndexFileSize = 3145728;   // .CIN when made, 3 MiB
constexpr DWORD kIndexInitBytes = 100;      // zeros written at the head of a new .CIN
constexpr DWORD kTableInitDays = 4;         // day records a new .CTA has room for
constexpr DWORD kMaxChunkLength = 811008;   // largest payload a read accepts
}  // namespace molra

#pragma pack(push, 1)

// Head of the catalogue.
struct _tagFSHDR {
  char szMagic[6];  // "MOLRA3", no terminator
  WORD wVersion;    // 0x0100
  DWORD dwBaskets;
  DWORD dwCurrent;  // basket being written: the head of the ring
  DWORD dwOldest;   // the tail of the ring
  BYTE byReserved[12];
};

// Catalogue record of one basket.
struct _tagFSBSKINFO {
  char szPath[64];  // basket path without extension, zero-terminated
  DWORD dwReserved;
  SYSTEMTIME stCreated;
  SYSTEMTIME stFirst;  // earliest chunk stamp; zero while empty
  SYSTEMTIME stLast;   // latest chunk stamp; zero while empty
  DWORD dwDays;        // day records in use in the .CTA file
  DWORD dwChunks;      // chunks saved in this cycle
  DWORD dwFlags;       // bit 0: new hour marks were added
};

// Head of a .CDT file.
struct _tagDATAHDR {
  WORD wVersion;     // 0x0100
  char szMagic[5];   // "MOLRA", no terminator
  BYTE byReserved;
  DWORD dwWritePos;  // where the next chunk goes; 16 in an empty file
  DWORD dwReserved;
};

// Header in front of every chunk. The host fills it in; the store keeps
// all 30 bytes as they come.
struct _tagCHUNKHDR {
  BYTE byTag;
  SYSTEMTIME stTime;  // UTC on disk
  BYTE byHostData[4];
  signed char chChannel;  // 0 to 15; -1 in a read request means any
  DWORD dwInfo;       // frame bits; bit 16 key frame; top byte events
  DWORD dwLength;     // payload bytes behind the header
};

// One day record of a .CTA file.
struct _tagFSBSKTBL {
  DWORD dwYear;
  DWORD dwMonth;
  DWORD dwDay;
  DWORD dwHour[16][24];
  DWORD dwMinute[16][24][60];
};

// Argument record of CreateFS: a drive and how many baskets to make on it.
struct _tagBSKLOC {
  signed char chDrive;  // 0 is drive A, 2 is drive C
  LONG lCount;
};

// One row of a quick-search day file: a channel and its 24 hour marks.
struct _tagSTIROW {
  signed char chChannel;
  char chHour[24];
};

#pragma pack(pop)

static_assert(sizeof(_tagFSHDR) == 32, "_tagFSHDR is 32 bytes");
static_assert(sizeof(_tagFSBSKINFO) == 128, "_tagFSBSKINFO is 128 bytes");
static_assert(offsetof(_tagFSBSKINFO, stFirst) == 84, "_tagFSBSKINFO layout");
static_assert(offsetof(_tagFSBSKINFO, dwDays) == 116, "_tagFSBSKINFO layout");
static_assert(sizeof(_tagDATAHDR) == 16, "_tagDATAHDR is 16 bytes");
static_assert(offsetof(_tagDATAHDR, dwWritePos) == 8, "_tagDATAHDR layout");
static_assert(sizeof(_tagCHUNKHDR) == 30, "_tagCHUNKHDR is 30 bytes");
static_assert(offsetof(_tagCHUNKHDR, stTime) == 1, "_tagCHUNKHDR layout");
static_assert(offsetof(_tagCHUNKHDR, chChannel) == 21, "_tagCHUNKHDR layout");
static_assert(offsetof(_tagCHUNKHDR, dwInfo) == 22, "_tagCHUNKHDR layout");
static_assert(offsetof(_tagCHUNKHDR, dwLength) == 26, "_tagCHUNKHDR layout");
static_assert(sizeof(_tagFSBSKTBL) == 93708, "_tagFSBSKTBL is 93,708 bytes");
static_assert(offsetof(_tagFSBSKTBL, dwMinute) == 1548, "_tagFSBSKTBL layout");
static_assert(sizeof(_tagBSKLOC) == 5, "_tagBSKLOC is 5 bytes");
static_assert(sizeof(_tagSTIROW) == 25, "_tagSTIROW is 25 bytes");

namespace molra {
constexpr DWORD kTableFileSize = kTableInitDays * sizeof(_tagFSBSKTBL);  // 374,832
static_assert(kTableFileSize == 374832, ".CTA size when made");
}  // namespace molra
