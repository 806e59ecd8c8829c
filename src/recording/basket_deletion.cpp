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
#include "store/store_files.h"

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
  platform::Env* env = platform::CurrentEnv();
  if (!env->OpenFile(molra::kCatalogPath, platform::Access::kRead, platform::kShareReadWrite,
                     platform::Disposition::kOpenExisting)) {
    return FS_ERR_CATALOG;
  }
  std::unique_ptr<platform::File> file =
      env->OpenFile(molra::kCatalogPath, platform::Access::kReadWrite, platform::kShareReadWrite,
                    platform::Disposition::kOpenExisting);
  if (!file) return FS_ERR_CATALOG;
  _tagFSHDR head;
  DWORD done = 0;
  if (!file->ReadAt(0, &head, sizeof head, &done) || done != sizeof head || head.dwBaskets == 0) {
    return FS_OK;
  }
  // The records the file holds; a head that promises more names nothing
  // beyond them.
  const DWORD size = file->Size();
  const DWORD held = size == platform::kInvalidFileSize || size < sizeof head
                         ? 0
                         : (size - static_cast<DWORD>(sizeof head)) / sizeof(_tagFSBSKINFO);
  const DWORD count = head.dwBaskets < held ? head.dwBaskets : held;
  if (number != -1 && (number < 0 || static_cast<DWORD>(number) >= count)) {
    // A number that names no basket takes none: nothing else may go.
    return FS_ERR_PARAM;
  }
  std::vector<_tagFSBSKINFO> records;
  try {
    records.resize(count);
  } catch (const std::bad_alloc&) {
    return FS_OK;
  }
  if (count > 0) file->ReadAt(sizeof head, records.data(), count * sizeof(_tagFSBSKINFO), &done);
  for (_tagFSBSKINFO& record : records) record.szPath[sizeof record.szPath - 1] = '\0';

  if (number == -1) {
    head.dwBaskets = 0;
    head.dwCurrent = 0;
    head.dwOldest = 0;
    file->WriteAt(0, &head, sizeof head, &done);
    for (const _tagFSBSKINFO& record : records) DeleteBasketFiles(record);
    return FS_OK;
  }
  // dwOldest stays even where it now lies past the list: a load reads such
  // a position as the basket behind the current one.
  head.dwBaskets = count - 1;
  if (head.dwBaskets == head.dwCurrent && head.dwCurrent != 0) --head.dwCurrent;
  file->WriteAt(0, &head, sizeof head, &done);
  DWORD at = sizeof head;
  for (DWORD i = 0; i < count; ++i) {
    if (i == static_cast<DWORD>(number)) {
      DeleteBasketFiles(records[i]);
      continue;
    }
    file->WriteAt(at, &records[i], sizeof records[i], &done);
    at += sizeof records[i];
  }
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
    if (CompareSystemTime(&reference, &start, 4) == 0) continue;
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

    CFsFile catalogue;
    if (!catalogue.Open(molra::kCatalogPath, CFsFile::kModeReadWrite)) return FS_ERR_PARAM;
    const DWORD at = sizeof(_tagFSHDR) + n * sizeof(_tagFSBSKINFO);
    _tagFSBSKINFO onDisk;
    std::memset(&onDisk, 0, sizeof onDisk);
    catalogue.ReadAt(at, &onDisk, sizeof onDisk);
    std::memset(&onDisk.stFirst, 0, sizeof onDisk.stFirst);
    std::memset(&onDisk.stLast, 0, sizeof onDisk.stLast);
    onDisk.dwDays = 0;
    onDisk.dwChunks = 0;
    catalogue.WriteAt(at, &onDisk, sizeof onDisk);
    catalogue.Close();
  }
  return FS_OK;
}
