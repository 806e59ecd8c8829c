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

// The open files and the records go with the last object that shares
// them, and so does the zone clock.
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
