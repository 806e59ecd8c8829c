// Stepping from the chunk the reader stands on to its neighbour in index
// order, across the baskets of the ring.
#include <memory>

#include "index/fs_index.h"
#include "molra/molra.h"
#include "platform/settings.h"
#include "playback/local_reads.h"
#include "playback/walk_limits.h"

using molra::detail::CFsFile;
using molra::detail::CFsIndex;

LONG CMOLRA::ReadNextData(_tagCHUNKHDR* header, unsigned char* payload, unsigned char bDaylight) {
  return molra::ReadInLocalTime(*this, header, bDaylight,
                                [&] { return ReadNextDataEx(header, payload); });
}

LONG CMOLRA::ReadPrevData(_tagCHUNKHDR* header, unsigned char* payload, unsigned char bDaylight) {
  return molra::ReadInLocalTime(*this, header, bDaylight,
                                [&] { return ReadPrevDataEx(header, payload); });
}

LONG CMOLRA::ReadNextDataEx(_tagCHUNKHDR* header, unsigned char* payload) {
  return Step(header, payload, true);
}

LONG CMOLRA::ReadPrevDataEx(_tagCHUNKHDR* header, unsigned char* payload) {
  return Step(header, payload, false);
}

LONG CMOLRA::MoveOne(bool forward, char* key, _tagIDXREF* ref, bool* entered) {
  *entered = false;
  // Held across the move: a message step of the host may close the store.
  std::shared_ptr<CFsIndex> index = m_pIndex;
  if (!index) return FS_ERR_FILE;
  if (forward ? index->Next(key, ref) : index->Prev(key, ref)) return FS_OK;

  const LONG end = forward ? FS_END_OF_DATA : FS_BEGIN_OF_DATA;
  // The seam of the ring: never from the newest basket into the oldest.
  const DWORD last = forward ? m_FsHdr.dwCurrent : m_FsHdr.dwOldest;
  if (m_nOpenBasket == static_cast<LONG>(last)) return end;
  // A ring that a failed load left empty, or one that no longer holds the
  // open basket, has no neighbour to go to.
  const DWORD baskets = m_FsHdr.dwBaskets;
  if (baskets == 0 || m_nOpenBasket < 0 || static_cast<DWORD>(m_nOpenBasket) >= baskets) {
    return end;
  }
  const DWORD open = static_cast<DWORD>(m_nOpenBasket);
  const DWORD neighbour = forward ? (open + 1) % baskets : (open == 0 ? baskets - 1 : open - 1);
  m_nOpenBasket = static_cast<LONG>(neighbour);
  if (OpenBsk(m_nOpenBasket) == FS_ERR_INDEX) return FS_ERR_INDEX;
  index = m_pIndex;
  if (!index) return FS_ERR_FILE;
  *entered = true;
  // A basket without a node ends the walk, whatever lies behind it.
  if (!(forward ? index->First(key, ref) : index->Last(key, ref))) return end;
  return FS_OK;
}

namespace {

// Steps read a basket's nodes and chunks in file order, forward or back:
// a hint lets the system fetch ahead of a forward reader, and a backward
// one take no more than it asks for. It changes no byte read.
void AdviseOrder(CFsFile* index, CFsFile* data, bool forward) {
  const auto order = forward ? molra::platform::Advice::kSequential
                             : molra::platform::Advice::kNormal;
  if (index) index->Advise(order, 0, 0);
  if (data) data->Advise(order, 0, 0);
}

}  // namespace

LONG CMOLRA::Step(_tagCHUNKHDR* header, unsigned char* payload, bool forward) {
  if (m_lExit.load() != 0) return FS_ERR_INDEX;
  if (!StoreOpen()) return FS_ERR_FILE;
  if (m_nMode != 1) return FS_ERR_MODE;
  if (header == nullptr) return FS_ERR_PARAM;
  const signed char channel = header->chChannel;
  if (channel < -1 || channel >= static_cast<signed char>(molra::kChannels)) return FS_ERR_INDEX;
  // Until a seek has found a node there is nothing to step from.
  if (!Placed()) return FS_ERR_FILE;

  char key[molra::kKeyLength];
  _tagIDXREF ref;
  bool entered = false;
  if (channel == -1) {
    const molra::IndexRun run(m_pIndex, molra::kStepBlock);
    const LONG moved = MoveOne(forward, key, &ref, &entered);
    if (moved != FS_OK) return moved;
    AdviseOrder(m_pIndex.get(), m_pData.get(), forward);
    return ReadOut(ref, header, payload, ReadKind::kStep, false);
  }

  if (m_lExit.load() != 0) return FS_ERR_FILE;
  const molra::IndexRun run(m_pIndex, molra::kWalkBlock);
  molra::MoveBudget budget;
  for (;;) {
    const LONG moved = MoveOne(forward, key, &ref, &entered);
    if (moved != FS_OK) return moved;
    if (ref.cChannel == channel) {
      AdviseOrder(m_pIndex.get(), m_pData.get(), forward);
      // A backward walk that finds its channel on entering a basket
      // refuses an empty chunk there.
      return ReadOut(ref, header, payload, ReadKind::kStep, !forward && entered);
    }
    molra::platform::MessageStep();
    if (m_lExit.load() != 0) return FS_ERR_FILE;
    if (entered) budget.NewBasket();
    if (!m_pIndex || !budget.Spend(*m_pIndex)) return FS_ERR_FILE;
  }
}
