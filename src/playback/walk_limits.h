// Bounds of the walks through a basket's index.
#pragma once

#include <memory>
#include <utility>

#include "index/fs_index.h"

namespace molra {

// Index moves a key-frame skip makes at most in one call.
constexpr int kMaxSkipMoves = 4800;

// Nodes the open index file can hold at most. A walk that moves more
// often than this inside one basket is running round a damaged tree.
inline DWORD NodeCapacity(CFsIndex& index) {
  const DWORD size = index.GetSize();
  return size / kNodeSize + 1;
}

// A walk that looks for one channel starts with blocks of 1 KiB: most end
// within a few nodes. A single step needs its node and the next one.
constexpr DWORD kWalkBlock = 1024;
constexpr DWORD kStepBlock = 2 * kNodeSize;

// Reads the nodes of one walk through blocks for as long as it lasts.
class IndexRun {
 public:
  IndexRun(std::shared_ptr<CFsIndex> index, DWORD firstBlock) : m_index(std::move(index)) {
    if (m_index) m_index->BeginRun(firstBlock);
  }
  ~IndexRun() {
    if (m_index) m_index->EndRun();
  }
  IndexRun(const IndexRun&) = delete;
  IndexRun& operator=(const IndexRun&) = delete;

 private:
  std::shared_ptr<CFsIndex> m_index;
};

// Whether a reference's channel has a counter of key frames.
inline bool CountsHits(signed char channel) { return channel >= 0 && channel < 32; }

}  // namespace molra
