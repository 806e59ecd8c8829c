// Life of the store object and its small operations.
#include <cstring>
#include <new>

#include "disk/fs_file.h"
#include "molra/molra.h"
#include "store/store_files.h"
#include "time/zone_clock.h"

CMOLRA::CMOLRA()
    : m_bFull(0),
      m_bIFrame{},
      m_dwFill(0),
      m_lExit(0),
      m_FsHdr{},
      m_DataHdr{},
      m_nMode(1),
      m_nOpenBasket(-1),
      m_LastSaved{},
      m_bDST(0),
      m_bOddBias(0),
      m_Tzi{},
      m_stLastRead{},
      m_ChanHits{} {
  molra::SetDefaultHead(&m_FsHdr);
  std::memset(m_SaveTime, 0, sizeof m_SaveTime);
  InitTimeZoneInfo();
}

// Every member is assigned by operator=; the copy starts from nothing.
CMOLRA::CMOLRA(const CMOLRA& other) : m_lExit(0) { *this = other; }

CMOLRA& CMOLRA::operator=(const CMOLRA& other) {
  if (this == &other) return *this;
  std::memcpy(m_SaveTime, other.m_SaveTime, sizeof m_SaveTime);
  m_bFull = other.m_bFull;
  std::memcpy(m_bIFrame, other.m_bIFrame, sizeof m_bIFrame);
  m_dwFill = other.m_dwFill;
  m_lExit.exchange(other.m_lExit.load());
  m_pIndex = other.m_pIndex;
  m_pData = other.m_pData;
  m_pTable = other.m_pTable;
  m_pCatalog = other.m_pCatalog;
  m_bCatalogueStale = other.m_bCatalogueStale;
  m_lastFlushMs = other.m_lastFlushMs;
  m_FsHdr = other.m_FsHdr;
  m_ppBasket = other.m_ppBasket;
  m_DataHdr = other.m_DataHdr;
  m_nMode = other.m_nMode;
  m_nOpenBasket = other.m_nOpenBasket;
  std::memcpy(m_LastSaved, other.m_LastSaved, sizeof m_LastSaved);
  m_bDST = other.m_bDST;
  m_bOddBias = other.m_bOddBias;
  m_Tzi = other.m_Tzi;
  m_tDstBegin = other.m_tDstBegin;
  m_tDstEnd = other.m_tDstEnd;
  m_tDstBeginUtc = other.m_tDstBeginUtc;
  m_tDstEndUtc = other.m_tDstEndUtc;
  CopyClock(other);
  m_stLastRead = other.m_stLastRead;
  std::memcpy(m_ChanHits, other.m_ChanHits, sizeof m_ChanHits);
  return *this;
}

// A copy's clock points at the copy's own zone, so that neither object
// depends on the other's lifetime.
void CMOLRA::CopyClock(const CMOLRA& other) {
  m_pClock.reset();
  if (other.m_pClock) {
    m_pClock.reset(new (std::nothrow) CZoneClock(*other.m_pClock));
    if (m_pClock) m_pClock->SetWindow(&m_Tzi, other.m_pClock->Begin(), other.m_pClock->End());
  }
}

// The open files and the records go with the last object that shares
// them; the clock goes with its object.
CMOLRA::~CMOLRA() { CloseFS(); }

int CMOLRA::OnCreatingFS(char* /*path*/, DWORD /*ordinal*/) { return 1; }

void CMOLRA::OnReadingData(_tagCHUNKHDR* /*header*/) {}

_tagFSHDR* CMOLRA::GetFSInfo() { return &m_FsHdr; }

int CMOLRA::IsFullBasket() {
  return static_cast<DWORD>(molra::kDataFileSize - m_dwFill) >= 1000000 ? 1 : 0;
}

int CMOLRA::GetIFrame(int channel) {
  if (channel < 0 || channel >= static_cast<int>(molra::kChannels)) return 0;
  return m_bIFrame[channel] != 0 ? 1 : 0;
}

void CMOLRA::SetIFrame(int channel) {
  if (channel < 0 || channel >= static_cast<int>(molra::kChannels)) return;
  m_bIFrame[channel] = 0;
}

LONG CMOLRA::IsExistData(LONG, LONG, LONG, LONG, LONG) { return 0; }

LONG CMOLRA::GetBaksetFirst(LONG, _tagCHUNKHDR*, unsigned char**) { return 0; }

LONG CMOLRA::GetBaksetLast(LONG basket, _tagCHUNKHDR* header, unsigned char** data) {
  return GetBaksetFirst(basket, header, data);
}

_tagFSBSKINFO* CMOLRA::Basket(DWORD n) {
  if (!m_ppBasket || n >= m_FsHdr.dwBaskets || n >= m_ppBasket->size()) return nullptr;
  return &(*m_ppBasket)[n];
}
