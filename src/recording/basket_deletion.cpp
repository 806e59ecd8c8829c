// Taking baskets out of the store for good, and blanking the day tables
// and time ranges of old baskets.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "disk/fs_file.h"
#include "molra/molra.h"
#include "platform/clock.h"
#include "platform/env.h"
#include "disk/status_log.h"
#include "store/catalogue_file.h"
#include "store/store_files.h"

using molra::detail::CFsFile;
using molra::detail::FsStatusLog;

namespace platform = molra::platform;

namespace {

constexpr DWORD kRecordSize = sizeof(_tagFSBSKTBL);
constexpr DWORD kPaceMs = 5;  // leaves the disk to recording between steps

void DeleteBasketFiles(const _tagFSBSKINFO& record) {
  platform::Env* env = platform::CurrentEnv();
  for (const char* ext : {molra::kIndexExt, molra::kDataExt, molra::kTableExt}) {
    env->RemoveFile(molra::BasketFile(record.szPath, ext));
  }
}

int Number(const std::string& text, size_t from, size_t count) {
  return from < text.size() ? std::atoi(text.substr(from, count).c_str()) : 0;
}

}  // namespace

LONG CMOLRA::DeleteBakset(LONG number) {
  if (!molra::CatalogueFile::Exists()) return FS_ERR_CATALOG;
  CFsFile file;
  if (!molra::CatalogueFile::Open(file, CFsFile::kModeReadWrite)) return FS_ERR_CATALOG;
  molra::CatalogueFile catalogue(file);
  _tagFSHDR head;
  if (!catalogue.ReadHead(&head) || head.dwBaskets == 0) return FS_OK;
  // The records the file holds; a head that promises more names nothing
  // beyond them.
  const DWORD held = catalogue.RecordsHeld();
  const DWORD count = head.dwBaskets < held ? head.dwBaskets : held;
  if (number != -1 && (number < 0 || static_cast<DWORD>(number) >= count)) {
    // A number that names no basket takes none: nothing else may go.
    return FS_ERR_PARAM;
  }
  std::vector<_tagFSBSKINFO> records;
  try {
    records.resize(count);
  } catch (const std::bad_alloc&) {
    FsStatusLog("DeleteBakset: no memory for the catalogue's records; nothing deleted");
    return FS_OK;
  }
  if (!catalogue.ReadRecords(0, count, records.data())) {
    // Records written back from a failed read would overwrite good ones.
    FsStatusLog("DeleteBakset: the catalogue's records cannot be read; nothing deleted");
    return FS_ERR_CATALOG;
  }
  for (_tagFSBSKINFO& record : records) record.szPath[sizeof record.szPath - 1] = '\0';

  if (number == -1) {
    head.dwBaskets = 0;
    head.dwCurrent = 0;
    head.dwOldest = 0;
    // Files go only once no head lists them any more.
    if (!catalogue.WriteHead(head)) return FS_OK;
    for (const _tagFSBSKINFO& record : records) DeleteBasketFiles(record);
    return FS_OK;
  }
  // dwOldest stays even where it now lies past the list: a load reads such
  // a position as the basket behind the current one.
  const _tagFSHDR before = head;
  head.dwBaskets = count - 1;
  if (head.dwBaskets == head.dwCurrent && head.dwCurrent != 0) --head.dwCurrent;
  // The records close up first, then the head counts them, and only then
  // do the basket's files go: a write that fails midway leaves every basket
  // listed (one of them twice until the old list is back) and no record
  // naming deleted files. The old list is written back at once.
  const DWORD first = static_cast<DWORD>(number);
  const DWORD moved = count - 1 - first;
  if (catalogue.WriteRecords(first, moved, records.data() + first + 1) &&
      catalogue.WriteHead(head)) {
    DeleteBasketFiles(records[first]);
    return FS_OK;
  }
  const bool restored = catalogue.WriteRecords(first, moved, records.data() + first) &&
                        catalogue.WriteHead(before);
  FsStatusLog(restored ? "DeleteBakset: the catalogue could not be written; nothing deleted"
                       : "DeleteBakset: the catalogue could not be written nor restored; "
                         "nothing deleted");
  return FS_OK;
}

LONG CMOLRA::DelTBLSaveDataInfo(CString date, CString limit) {
  const std::string text = date.Str();
  SYSTEMTIME reference{};
  reference.wYear = static_cast<WORD>(Number(text, 0, 4));
  reference.wMonth = static_cast<WORD>(Number(text, 4, 2));
  reference.wDay = static_cast<WORD>(Number(text, 6, 2));
  const int days = std::atoi(limit);
  if (!StoreOpen()) return FS_ERR_FILE;
  if (m_nMode != 0) return FS_ERR_MODE;
  LoadFSInfo(-1);

  const DWORD baskets = m_FsHdr.dwBaskets;
  const DWORD current = m_FsHdr.dwCurrent;
  const DWORD oldest = m_FsHdr.dwOldest;
  std::vector<DWORD> visit;
  if (current < oldest) {
    for (DWORD i = 0; i < baskets; ++i) visit.push_back((oldest + i) % baskets);
  } else if (current > oldest) {
    for (DWORD i = 0; i < current; ++i) visit.push_back(i);
  }
  static const _tagFSBSKTBL zero{};
  for (const DWORD n : visit) {
    platform::Sleep(kPaceMs);
    const _tagFSBSKINFO* record = Basket(n);
    if (record == nullptr) continue;
    SYSTEMTIME start = record->stFirst;
    ChangeSystemToLocalTime(start, 1);
    if (CompareSystemTime(&reference, &start, kByDay) == 0) continue;
    if (IntervalSystemTime(&reference, &start, 4) <= days) continue;

    CFsFile table;
    if (!table.Open(molra::BasketFile(record->szPath, molra::kTableExt), CFsFile::kModeReadWrite)) {
      return FS_ERR_PARAM;
    }
    // Zeros past the end of the table would only lengthen it.
    const DWORD held = (table.GetSize() + kRecordSize - 1) / kRecordSize;
    const DWORD records = record->dwDays < held ? record->dwDays : held;
    for (DWORD k = 0; k < records; ++k) {
      platform::Sleep(kPaceMs);
      table.WriteAt(k * kRecordSize, &zero, kRecordSize);
    }
    table.Close();

    CFsFile file;
    if (!molra::CatalogueFile::Open(file, CFsFile::kModeReadWrite)) return FS_ERR_PARAM;
    molra::CatalogueFile catalogue(file);
    _tagFSBSKINFO onDisk;
    // Only a record read whole is written back blanked: a failed read must
    // not put a record of zeros in place of the basket's path.
    if (catalogue.ReadRecords(n, 1, &onDisk)) {
      std::memset(&onDisk.stFirst, 0, sizeof onDisk.stFirst);
      std::memset(&onDisk.stLast, 0, sizeof onDisk.stLast);
      onDisk.dwDays = 0;
      onDisk.dwChunks = 0;
      catalogue.WriteRecords(n, 1, &onDisk);
    }
    file.Close();
  }
  return FS_OK;
}
