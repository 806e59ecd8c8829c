// Moving recording on through the ring of baskets, and taking a basket
// whose files cannot be opened out of the catalogue.
#include <cstdio>
#include <cstring>

#include "disk/fs_file.h"
#include "disk/status_log.h"
#include "index/fs_index.h"
#include "molra/molra.h"
#include "platform/settings.h"
#include "store/store_files.h"

using molra::detail::CFsFile;
using molra::detail::FsStatusLog;

namespace {

// Attempts after the first, each on the basket behind an erased one.
constexpr int kRolloverRetries = 3;

}  // namespace

LONG CMOLRA::RollOver() {
  for (DWORD& flag : m_bIFrame) flag = 1;
  // What the basket being left holds goes to the disk before the next one
  // is reset.
  if (molra::platform::FlushInterval() != 0) FlushRecording();
  // Attempt 0 moves on; attempt 1 tries the same basket once more, since a
  // write that failed once (a busy or briefly full disk) must not shrink
  // the ring for good; each later attempt takes the basket out of the ring.
  for (int attempt = 0;; ++attempt) {
    if (attempt > kRolloverRetries + 1) return FS_ERR_INDEX;
    m_pTable->Close();
    m_pData->Close();
    m_pIndex->Close();
    if (m_FsHdr.dwBaskets == 0) continue;
    if (attempt == 0) {
      m_FsHdr.dwCurrent = (m_FsHdr.dwCurrent + 1) % m_FsHdr.dwBaskets;
      if (m_FsHdr.dwCurrent == m_FsHdr.dwOldest) {
        m_FsHdr.dwOldest = (m_FsHdr.dwOldest + 1) % m_FsHdr.dwBaskets;
      }
    } else if (attempt > 1) {
      EraseErrorBasket();
    }
    const _tagFSBSKINFO* basket = Basket(m_FsHdr.dwCurrent);
    if (basket == nullptr) continue;
    const molra::BasketFile index(basket->szPath, molra::kIndexExt);
    const molra::BasketFile data(basket->szPath, molra::kDataExt);
    const molra::BasketFile table(basket->szPath, molra::kTableExt);
    if (!m_pIndex->Open(index, CFsFile::kModeReadWrite, 1)) continue;
    if (!m_pData->Open(data, CFsFile::kModeReadWrite)) continue;
    // The old chunks stay on disk; the reset head no longer reaches them.
    m_DataHdr = molra::EmptyDataHead();
    m_pData->WriteAt(0, &m_DataHdr, sizeof m_DataHdr);
    if (m_pTable->Open(table, CFsFile::kModeReadWrite)) return FS_OK;
  }
}

void CMOLRA::EraseErrorBasket() {
  const DWORD count = m_ppBasket ? static_cast<DWORD>(m_ppBasket->size()) : 0;
  const DWORD baskets = m_FsHdr.dwBaskets < count ? m_FsHdr.dwBaskets : count;
  const DWORD current = m_FsHdr.dwCurrent;
  if (current >= baskets) return;
  char line[160];
  if (baskets == 1) {
    // Without it the ring would name no basket at all: it stays, and the
    // caller's attempts run out on it.
    std::snprintf(line, sizeof line, "Erase Basket in File System - only basket kept : %s",
                  (*m_ppBasket)[0].szPath);
    FsStatusLog(line);
    return;
  }
  BasketList& list = *m_ppBasket;
  for (DWORD i = current + 1; i < baskets; ++i) list[i - 1] = list[i];
  list.resize(baskets - 1);
  m_FsHdr.dwBaskets = baskets - 1;
  if (m_FsHdr.dwCurrent == m_FsHdr.dwBaskets) {
    m_FsHdr.dwCurrent = 0;
    m_FsHdr.dwOldest = m_FsHdr.dwBaskets == 1 ? 0 : 1;
  } else if (m_FsHdr.dwOldest >= m_FsHdr.dwBaskets) {
    m_FsHdr.dwOldest = 0;
  }
  SaveFSInfo(-1);
  std::snprintf(line, sizeof line, "Erase Basket in File System - %d Basket : %s",
                static_cast<int>(m_FsHdr.dwCurrent), list[m_FsHdr.dwCurrent].szPath);
  FsStatusLog(line);
}
