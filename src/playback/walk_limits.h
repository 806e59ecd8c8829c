// Bounds of the walks through a basket's index.
#pragma once

#include <memory>
#include <utility>

#include "index/fs_index.h"

namespace molra {

// Index moves a key-frame skip makes at most in one call.
constexpr int kMaxSkipMoves = 4800;

// Counts a walk's moves inside one basket. More moves than its index file
// can hold nodes means the walk runs round a damaged tree. The file's size
// is asked only once a walk is longer than any intact basket's.
class MoveBudget {
 public:
  // False once the moves in this basket exceed what its index can hold.
  bool Spend(detail::CFsIndex& index) {
    if (++m_moves <= kMovesUnchecked) return true;
    if (m_capacity == 0) m_capacity = index.GetSize() / kNodeSize + 1;
    return m_moves <= m_capacity;
  }
  void NewBasket() { m_moves = m_capacity = 0; }

 private:
  static constexpr DWORD kMovesUnchecked = 1u << 17;  // a basket takes 70,001 chunks at most
  DWORD m_moves = 0;
  DWORD m_capacity = 0;
};

// A walk that looks for one channel starts with blocks of 1 KiB: most end
// within a few nodes. A single step needs its node and the next one.
constexpr DWORD kWalkBlock = 1024;
constexpr DWORD kStepBlock = 2 * kNodeSize;

// Reads the nodes of one walk through blocks for as long as it lasts.
class IndexRun {
 public:
  IndexRun(std::shared_ptr<detail::CFsIndex> index, DWORD firstBlock) : m_index(std::move(index)) {
    if (m_index) m_index->BeginRun(firstBlock);
  }
  ~IndexRun() {
    if (m_index) m_index->EndRun();
  }
  IndexRun(const IndexRun&) = delete;
  IndexRun& operator=(const IndexRun&) = delete;

 private:
  std::shared_ptr<detail::CFsIndex> m_index;
};

// Whether a reference's channel has a counter of key frames.
inline bool CountsHits(signed char channel) { return channel >= 0 && channel < 32; }

}  // namespace molra
