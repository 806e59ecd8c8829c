// Bringing the store into use, ending that use, and moving between
// baskets.
#include <memory>
#include <new>

#include "disk/fs_file.h"
#include "index/fs_index.h"
#include "molra/molra.h"
#include "store/basket_recovery.h"
#include "store/store_files.h"

using molra::detail::CFsFile;

namespace {

// Attempts that the three files of a basket share at a close.
constexpr int kCloseRetries = 3;

// The three files of a basket.
struct BasketPaths {
  explicit BasketPaths(const _tagFSBSKINFO& basket)
      : index(basket.szPath, molra::kIndexExt),
        data(basket.szPath, molra::kDataExt),
        table(basket.szPath, molra::kTableExt) {}
  molra::BasketFile index;
  molra::BasketFile data;
  molra::BasketFile table;
};

// Makes a file object; false when there is no memory for it.
template <typename T>
bool Make(std::shared_ptr<T>* object) {
  try {
    *object = std::make_shared<T>();
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

// Closes `file` with the attempts left; false when they ran out.
template <typename File>
bool CloseWithRetries(File& file, int* retries) {
  while (!file.Close()) {
    if (++*retries > kCloseRetries) return false;
  }
  return true;
}

}  // namespace

LONG CMOLRA::OpenFS(LONG mode) {
  // Only recording (0) and playback (1) exist; anything else changes nothing.
  if (mode != 0 && mode != 1) return FS_ERR_PARAM;
  CloseFS();
  m_nMode = mode;
  const LONG loaded = LoadFSInfo(-1);
  if (loaded != FS_OK) return loaded;
  const _tagFSBSKINFO* basket = Basket(m_FsHdr.dwCurrent);
  if (!basket) return FS_ERR_CATALOG;
  const BasketPaths paths(*basket);

  if (!Make(&m_pIndex)) return FS_ERR_MEMORY;
  if (!m_pIndex->Open(paths.index, CFsFile::kModeReadWrite, 0)) return FS_ERR_INDEX;
  for (SYSTEMTIME& saved : m_LastSaved) saved = basket->stLast;

  if (!Make(&m_pData)) return FS_ERR_MEMORY;
  if (!m_pData->Open(paths.data, CFsFile::kModeReadWrite)) return FS_ERR_FILE;
  if (!m_pData->Read(&m_DataHdr, sizeof m_DataHdr)) return FS_ERR_FILE;
  if (m_nMode == 0) {
    m_pData->Close();
    if (!m_pData->Open(paths.data, CFsFile::kModeReadWrite)) return FS_ERR_FILE;
    // The recorder goes on from here: not behind damage, nor over its chunks.
    molra::RecoverBasket(*basket, m_pIndex.get(), m_pData.get(), &m_DataHdr);
  } else {
    molra::ReadRebuiltIndex(m_pIndex.get(), m_pData.get());
  }

  if (!Make(&m_pTable)) return FS_ERR_MEMORY;
  if (!m_pTable->Open(paths.table, CFsFile::kModeReadWrite)) return FS_ERR_FILE;

  m_nOpenBasket = static_cast<LONG>(m_FsHdr.dwCurrent);
  // Every save rewrites the catalogue: a recorder keeps it at hand. Without
  // it each save opens the file itself.
  if (m_nMode == 0 && Make(&m_pCatalog) &&
      !m_pCatalog->Open(molra::kCatalogPath, CFsFile::kModeWrite)) {
    m_pCatalog.reset();
  }
  return FS_OK;
}

void CMOLRA::CloseFS() {
  // Files that a copy of this object still uses stay open for it; the last
  // owner closes them.
  const bool shared =
      m_pIndex.use_count() > 1 || m_pTable.use_count() > 1 || m_pData.use_count() > 1;
  if (m_pIndex && m_pTable && m_pData && !shared) {
    int retries = 0;
    // Index, table, data, with one budget of attempts for the three.
    if (CloseWithRetries(*m_pIndex, &retries) && CloseWithRetries(*m_pTable, &retries)) {
      CloseWithRetries(*m_pData, &retries);
    }
  }
  // Whatever a failed open or close has left behind is let go here: each
  // object releases its own handle once, and no later call reaches it.
  m_pIndex.reset();
  m_pTable.reset();
  m_pData.reset();
  m_pCatalog.reset();  // closed by the last object that shares it
  m_ppBasket.reset();
  m_nOpenBasket = -1;
  m_FsHdr.dwBaskets = 0;
}

LONG CMOLRA::OpenBsk(LONG basket) {
  const _tagFSBSKINFO* record = basket >= 0 ? Basket(static_cast<DWORD>(basket)) : nullptr;
  if (m_lExit.load() != 0 || !m_pIndex || !m_pIndex->IsOpen() || !record) {
    return FS_ERR_INDEX;
  }
  if (!m_pTable || !m_pData) return FS_ERR_FILE;
  const BasketPaths paths(*record);
  // The basket open already, on the very files its paths name: the handles
  // stay, and the index is closed and opened on its own handle, so that its
  // header is read afresh just as a reopen reads it. A handle closed and
  // opened again would see nothing else.
  if (m_pIndex->Holds(paths.index) && m_pData->Holds(paths.data) &&
      m_pTable->Holds(paths.table)) {
    const int reopened = m_pIndex->Reopen();
    if (reopened < 0) return FS_ERR_FILE;
    if (reopened == 0) {
      // As after a failed open of the index: all three closed.
      m_pTable->Close();
      m_pData->Close();
      return FS_ERR_INDEX;
    }
    molra::ReadRebuiltIndex(m_pIndex.get(), m_pData.get());
    return FS_OK;
  }
  if (!m_pIndex->Close() || !m_pTable->Close() || !m_pData->Close()) return FS_ERR_FILE;

  if (!m_pIndex->Open(paths.index, CFsFile::kModeReadWrite, 0)) return FS_ERR_INDEX;
  if (!m_pData->Open(paths.data, CFsFile::kModeReadWrite)) return FS_ERR_FILE;
  molra::ReadRebuiltIndex(m_pIndex.get(), m_pData.get());
  if (!m_pTable->Open(paths.table, CFsFile::kModeReadWrite)) return FS_ERR_FILE;
  return FS_OK;
}

LONG CMOLRA::SetExit(int exit) {
  m_lExit.exchange(exit);
  return FS_OK;
}
