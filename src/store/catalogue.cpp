// The catalogue "C:\FSDIR\MOLRA.CFT": loading it into memory and writing
// it back.
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "disk/fs_file.h"
#include "disk/status_log.h"
#include "molra/molra.h"
#include "platform/env.h"
#include "store/store_files.h"

namespace platform = molra::platform;

namespace {

void MakeHomeDir() {
  platform::Env* env = platform::CurrentEnv();
  if (!env->Exists(molra::kHomeDir)) env->MakeDirectory(molra::kHomeDir);
}

}  // namespace

void CMOLRA::CallLoadFSinfo() { LoadFSInfo(-1); }

LONG CMOLRA::LoadFSInfo(LONG /*unused*/) {
  MakeHomeDir();
  platform::Env* env = platform::CurrentEnv();
  if (env->Exists(molra::kCatalogPath)) {
    const DWORD attributes = env->GetAttributes(molra::kCatalogPath);
    if (attributes != platform::kInvalidFileAttributes &&
        (attributes & platform::kFileAttributeHidden) == 0) {
      env->SetAttributes(molra::kCatalogPath, attributes | platform::kFileAttributeHidden);
    }
  }

  CFsFile file;
  if (!file.Open(molra::kCatalogPath, CFsFile::kModeReadWrite)) {
    molra::SetDefaultHead(&m_FsHdr);
    return FS_ERR_CATALOG;
  }
  if (!file.Read(&m_FsHdr, sizeof m_FsHdr)) {
    // A catalogue just made, or shorter than its head: an empty store. The
    // records in memory stay until the next load or close.
    molra::SetDefaultHead(&m_FsHdr);
    file.Close();
    return FS_OK;
  }

  m_ppBasket.reset();
  // Only whole records count: a head that promises more than the file
  // holds must not lead anyone past its end.
  const DWORD size = file.GetSize();
  const DWORD whole = size > sizeof(_tagFSHDR)
                          ? (size - sizeof(_tagFSHDR)) / sizeof(_tagFSBSKINFO)
                          : 0;
  if (m_FsHdr.dwBaskets > whole) {
    char line[128];
    std::snprintf(line, sizeof line, "catalogue holds %u whole records of %u",
                  static_cast<unsigned>(whole), static_cast<unsigned>(m_FsHdr.dwBaskets));
    FsStatusLog(line);
    m_FsHdr.dwBaskets = whole;
  }

  std::shared_ptr<BasketList> records;
  try {
    records = std::make_shared<BasketList>(m_FsHdr.dwBaskets);
  } catch (const std::bad_alloc&) {
    molra::SetDefaultHead(&m_FsHdr);
    file.Close();
    return FS_ERR_MEMORY;
  }
  // One read for all records.
  if (!records->empty() &&
      !file.Read(records->data(),
                 static_cast<DWORD>(records->size() * sizeof(_tagFSBSKINFO)))) {
    // The disk failed under a catalogue it said it held: an empty store in
    // memory, so that nothing half-read is ever written back.
    molra::SetDefaultHead(&m_FsHdr);
    file.Close();
    return FS_ERR_CATALOG;
  }
  for (_tagFSBSKINFO& record : *records) {
    record.szPath[sizeof record.szPath - 1] = '\0';
  }
  m_ppBasket = std::move(records);
  file.Close();
  PlaceRingInList();
  return FS_OK;
}

void CMOLRA::PlaceRingInList() {
  const DWORD baskets = m_FsHdr.dwBaskets;
  if (baskets == 0) return;
  if (m_FsHdr.dwCurrent >= baskets) {
    // Damage: the newest recording shows where the ring's head must be.
    DWORD newest = 0;
    SYSTEMTIME newestLast = (*m_ppBasket)[0].stLast;
    for (DWORD n = 1; n < baskets; ++n) {
      const SYSTEMTIME last = (*m_ppBasket)[n].stLast;
      if (CompareSystemTime(&last, &newestLast, 0) > 0) {
        newest = n;
        newestLast = last;
      }
    }
    if (m_nMode == 0) {
      char line[160];
      std::snprintf(line, sizeof line,
                    "catalogue: current basket %u lies past the %u records; recording goes on in "
                    "basket %u, the newest",
                    static_cast<unsigned>(m_FsHdr.dwCurrent), static_cast<unsigned>(baskets),
                    static_cast<unsigned>(newest));
      FsStatusLog(line);
    }
    m_FsHdr.dwCurrent = newest;
  }
  // Deleting a basket below the oldest one can leave the oldest position
  // past the list; in a ring that has wrapped the oldest basket is the one
  // behind the current.
  if (m_FsHdr.dwOldest >= baskets) m_FsHdr.dwOldest = (m_FsHdr.dwCurrent + 1) % baskets;
}

LONG CMOLRA::SaveFSInfo(LONG basket) { return SaveCatalogue(basket, false); }

LONG CMOLRA::SaveCatalogue(LONG basket, bool recordFirst) {
  // A recorder holds the catalogue open while it records, so that the
  // write of every save costs no open and close; anyone else opens it here.
  CFsFile own;
  CFsFile* file = m_pCatalog && m_pCatalog->IsOpen() ? m_pCatalog.get() : &own;
  if (file == &own) {
    MakeHomeDir();
    if (!own.Open(molra::kCatalogPath, CFsFile::kModeWrite)) return FS_ERR_CATALOG;
  }
  const _tagFSBSKINFO* record = basket >= 0 ? Basket(static_cast<DWORD>(basket)) : nullptr;
  const auto writeRecord = [&] {
    file->WriteAt(sizeof(_tagFSHDR) + sizeof(_tagFSBSKINFO) * static_cast<DWORD>(basket), record,
                  sizeof *record);
  };
  if (record && recordFirst) writeRecord();
  file->WriteAt(0, &m_FsHdr, sizeof m_FsHdr);
  if (basket == -1) {
    const DWORD count = m_ppBasket ? static_cast<DWORD>(m_ppBasket->size()) : 0;
    const DWORD records = m_FsHdr.dwBaskets < count ? m_FsHdr.dwBaskets : count;
    if (records > 0) {
      // Straight behind the head, also when the head's write failed.
      file->WriteAt(sizeof(_tagFSHDR), m_ppBasket->data(),
                    records * static_cast<DWORD>(sizeof(_tagFSBSKINFO)));
    }
  } else if (record && !recordFirst) {
    writeRecord();
  }
  if (file == &own) own.Close();
  return FS_OK;
}

LONG CMOLRA::GetBaksetInfo(LONG basket, _tagFSBSKINFO* info) {
  const _tagFSBSKINFO* record = basket < 0 ? nullptr : Basket(static_cast<DWORD>(basket));
  if (record == nullptr || info == nullptr) return FS_ERR_PARAM;
  std::memcpy(info, record, sizeof *info);
  // The host reads a basket's span in local time; its making stays UTC.
  SYSTEMTIME first;
  SYSTEMTIME last;
  std::memcpy(&first, &info->stFirst, sizeof first);
  std::memcpy(&last, &info->stLast, sizeof last);
  ChangeSystemToLocalTime(first, 1);
  ChangeSystemToLocalTime(last, 1);
  std::memcpy(&info->stFirst, &first, sizeof first);
  std::memcpy(&info->stLast, &last, sizeof last);
  return FS_OK;
}
