// Laying baskets out on the data drives and entering them in the catalogue.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "disk/store_paths.h"
#include "disk/fs_file.h"
#include "molra/molra.h"
#include "platform/clock.h"
#include "platform/env.h"
#include "store/catalogue_file.h"
#include "store/store_files.h"

using molra::detail::CFsFile;

namespace platform = molra::platform;

namespace {

// The decimal number at the start of `text`, as the C runtime's atol reads
// it on a 32-bit platform: blanks, a sign, digits; 0 when there is none,
// and the nearest LONG on overflow.
LONG ParseLong(const char* text) {
  while (*text == ' ' || (*text >= '\t' && *text <= '\r')) ++text;
  bool negative = false;
  if (*text == '+' || *text == '-') negative = *text++ == '-';
  long long value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    value = value * 10 + (*text - '0');
    if (value > 0x80000000LL) value = 0x80000000LL;
  }
  if (negative) return static_cast<LONG>(-value);
  return value > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<LONG>(value);
}

// The file number that a basket path carries after its last "S".
DWORD FileNumberOf(const char* path) {
  const char* s = std::strrchr(path, 'S');
  return s ? static_cast<DWORD>(ParseLong(s + 1)) : 0;
}

// Each maker answers false, after which the caller undoes, when the file
// cannot be made at its size or its first bytes cannot be written: a basket
// that is in the catalogue has all its blocks and its head.
bool MakeDataFile(const char* path) {
  CFsFile file;
  if (!file.CreateSized(path, molra::kDataFileSize)) return false;
  const _tagDATAHDR head = molra::EmptyDataHead();
  const bool written = file.Seek(0, 0) && file.Write(&head, sizeof head);
  return file.Close() && written;
}

bool MakeIndexFile(const char* path) {
  CFsFile file;
  if (!file.CreateSized(path, molra::kIndexFileSize)) return false;
  // No valid index head yet: the first open of the index writes one.
  const BYTE zeros[molra::kIndexInitBytes] = {};
  const bool written = file.Seek(0, 0) && file.Write(zeros, sizeof zeros);
  return file.Close() && written;
}

// `zeros` holds one day record's worth of zero bytes.
bool MakeTableFile(const char* path, const std::vector<BYTE>& zeros) {
  CFsFile file;
  if (!file.CreateSized(path, molra::kTableFileSize)) return false;
  bool written = file.Seek(0, 0);
  for (DWORD day = 0; written && day < molra::kTableInitDays; ++day) {
    written = file.Write(zeros.data(), static_cast<DWORD>(zeros.size()));
  }
  return file.Close() && written;
}

// Takes the blocks of a catalogue of `size` bytes before anything of it is
// written, so that a full system drive leaves the old catalogue whole, not
// a head that counts records the file never got.
bool ReserveCatalogue(DWORD size) {
  platform::Env* env = platform::CurrentEnv();
  if (!env->Exists(molra::kHomeDir)) env->MakeDirectory(molra::kHomeDir);
  CFsFile file;
  if (!molra::CatalogueFile::Open(file, CFsFile::kModeWrite)) return false;
  const bool reserved = file.Reserve(size);
  return file.Close() && reserved;
}

}  // namespace

LONG CMOLRA::CreateFS(_tagBSKLOC* locations, DWORD count) {
  if (count > 0 && !locations) return FS_ERR_PARAM;
  const DWORD oldCount =
      m_ppBasket ? std::min(m_FsHdr.dwBaskets, static_cast<DWORD>(m_ppBasket->size())) : 0;
  unsigned long long total = oldCount;
  for (DWORD e = 0; e < count; ++e) {
    // A negative count would shrink the catalogue under its own records.
    if (locations[e].lCount < 0) return FS_ERR_PARAM;
    // A drive outside A to Z can hold no basket.
    if (locations[e].lCount > 0 && (locations[e].chDrive < 0 || locations[e].chDrive > 25)) {
      return FS_ERR_CREATE;
    }
    total += static_cast<DWORD>(locations[e].lCount);
  }
  if (total > 0xFFFFFFFFull) return FS_ERR_PARAM;

  // The new catalogue is built aside; the old one stays untouched until
  // every basket stands.
  std::shared_ptr<BasketList> records;
  std::vector<BYTE> zeros;
  try {
    records = std::make_shared<BasketList>();
    records->reserve(static_cast<size_t>(total));
    zeros.resize(sizeof(_tagFSBSKTBL));
  } catch (const std::bad_alloc&) {
    return FS_ERR_MEMORY;
  }

  DWORD highest = 0;
  for (DWORD n = 0; n < oldCount; ++n) {
    records->push_back((*m_ppBasket)[n]);
    const DWORD number = FileNumberOf(records->back().szPath);
    if (number > highest) highest = number;
  }
  DWORD nextNumber = oldCount > 0 ? highest + 1 : 0;

  char path[sizeof(_tagFSBSKINFO::szPath)];
  LONG failure = FS_OK;
  for (DWORD e = 0; e < count && failure == FS_OK; ++e) {
    if (locations[e].lCount <= 0) continue;
    char driveDir[16];
    std::snprintf(driveDir, sizeof driveDir, molra::kBasketDirFormat,
                  static_cast<char>('A' + locations[e].chDrive));
    platform::CurrentEnv()->MakeDirectory(driveDir);

    for (LONG k = 0; k < locations[e].lCount; ++k) {
      const DWORD place = static_cast<DWORD>(records->size());
      std::memset(path, 0, sizeof path);  // nothing stray behind the terminator
      std::snprintf(path, sizeof path, "%s\\FS%06d", driveDir, static_cast<int>(nextNumber));
      ++nextNumber;
      if (!OnCreatingFS(path, place - oldCount + 1)) {
        failure = FS_ERR_CANCEL;
        break;
      }
      _tagFSBSKINFO record = {};
      std::memcpy(record.szPath, path, sizeof path);
      platform::GetSystemTime(&record.stCreated);
      records->push_back(record);

      const bool made = MakeDataFile(molra::BasketFile(path, molra::kDataExt)) &&
                        MakeIndexFile(molra::BasketFile(path, molra::kIndexExt)) &&
                        MakeTableFile(molra::BasketFile(path, molra::kTableExt), zeros);
      if (!made) {
        failure = FS_ERR_CREATE;
        break;
      }
    }
  }

  if (failure != FS_OK) {
    // Undo: the data files of the new baskets go; index and table files,
    // and the drive directories, stay for a later attempt to reuse.
    for (DWORD n = oldCount; n < records->size(); ++n) {
      platform::CurrentEnv()->RemoveFile(molra::BasketFile((*records)[n].szPath, molra::kDataExt));
    }
    return failure;
  }

  m_FsHdr.dwBaskets = static_cast<DWORD>(records->size());
  m_ppBasket = std::move(records);
  const std::uint64_t catalogue =
      molra::CatalogueFile::kHeadSize +
      std::uint64_t{molra::CatalogueFile::kRecordSize} * m_ppBasket->size();
  if (catalogue > 0xFFFFFFFFull || !ReserveCatalogue(static_cast<DWORD>(catalogue))) {
    return FS_ERR_CATALOG;
  }
  return SaveFSInfo(-1);
}
