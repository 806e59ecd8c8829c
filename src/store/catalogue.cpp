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
#include "store/catalogue_file.h"
#include "store/store_files.h"

using molra::detail::CFsFile;
using molra::detail::FsStatusLog;

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
  if (!molra::CatalogueFile::Open(file, CFsFile::kModeReadWrite)) {
    molra::SetDefaultHead(&m_FsHdr);
    return FS_ERR_CATALOG;
  }
  molra::CatalogueFile catalogue(file);
  if (!catalogue.ReadHead(&m_FsHdr)) {
    // A catalogue just made, or shorter than its head: an empty store. The
    // records in memory stay until the next load or close.
    molra::SetDefaultHead(&m_FsHdr);
    file.Close();
    return FS_OK;
  }

  m_ppBasket.reset();
  // Only whole records count: a head that promises more than the file
  // holds must not lead anyone past its end.
  const DWORD whole = catalogue.RecordsHeld();
  if (m_FsHdr.dwBaskets > whole) {
    char line[128];
    std::snprintf(line, sizeof line, "catalogue holds %u whole records of %u",
                  static_cast<unsigned>(whole), static_cast<unsigned>(m_FsHdr.dwBaskets));
    FsStatusLog(line);
    m_FsHdr.dwBaskets = whole;
  }

  std::shared_ptr<BasketList> records;
  try {
    records = std::make_shared<BasketList>(DWORD{m_FsHdr.dwBaskets});
  } catch (const std::bad_alloc&) {
    molra::SetDefaultHead(&m_FsHdr);
    file.Close();
    return FS_ERR_MEMORY;
  }
  // One read for all records.
  if (!catalogue.ReadRecords(0, static_cast<DWORD>(records->size()), records->data())) {
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
      if (CompareSystemTime(&last, &newestLast, kByMillisecond) > 0) {
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
    if (!molra::CatalogueFile::Open(own, CFsFile::kModeWrite)) {
      m_bCatalogueStale = true;
      return FS_ERR_CATALOG;
    }
  }
  molra::CatalogueFile catalogue(*file);
  // A write that fails (logged where it happens) ends the save; the result
  // says whether all of them went.
  bool written = true;
  // After a failed write a recorder writes every record again: a basket it
  // has moved on from would otherwise keep the span the failure lost.
  const bool all = basket == -1 || (m_bCatalogueStale && m_nMode == 0);
  const _tagFSBSKINFO* record = basket >= 0 ? Basket(static_cast<DWORD>(basket)) : nullptr;
  const auto writeRecord = [&] {
    written = catalogue.WriteRecords(static_cast<DWORD>(basket), 1, record) && written;
  };
  const auto writeAll = [&] {
    const DWORD count = m_ppBasket ? static_cast<DWORD>(m_ppBasket->size()) : 0;
    const DWORD records = m_FsHdr.dwBaskets < count ? m_FsHdr.dwBaskets : count;
    if (records > 0) written = catalogue.WriteRecords(0, records, m_ppBasket->data()) && written;
  };
  // Records that the head is to count, or that the head's move depends on,
  // go first; the head only follows records that got there, so that it
  // never counts or points past what the file holds.
  if (basket == -1) writeAll();
  if (record && recordFirst) writeRecord();
  if (written) written = catalogue.WriteHead(m_FsHdr);
  if (written && all && basket != -1) writeAll();
  if (written && record && !recordFirst) writeRecord();
  if (file == &own && !own.Close()) written = false;
  if (all || !written) m_bCatalogueStale = !written;
  return written ? FS_OK : FS_ERR_CATALOG;
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
