// Bounds of the walks through a basket's index.
#pragma once

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

// Whether a reference's channel has a counter of key frames.
inline bool CountsHits(signed char channel) { return channel >= 0 && channel < 32; }

}  // namespace molra
