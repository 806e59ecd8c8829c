// Reading a basket's tree as its nodes hold it, and setting right what a
// lost, torn or cut write has broken: a link, the header, the tail.
//
// Nodes lie at 28 + 41k in order of arrival, and each one's parent
// arrived before it. So one pass in file order sees every node after
// the node that links it, and the tree is the longest run of nodes from
// the first on that are whole and linked as inserts link them. Chunks lie
// back to back in the same order, so nodes that damage took can be made
// again from the chunks behind the last node that is left.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "index/fs_index.h"

namespace molra {
namespace detail {

namespace {

constexpr DWORD kTopBit = 0x80000000u;
constexpr DWORD kDataHead = sizeof(_tagDATAHDR);
constexpr DWORD kChunkHead = sizeof(_tagCHUNKHDR);
// Whole nodes per read: 64 KiB first (a new index has one zero node to
// show), then about a megabyte.
constexpr DWORD kFirstBlockNodes = 64 * 1024 / kNodeSize;
constexpr DWORD kBlockNodes = 1024 * 1024 / kNodeSize;

// A node as an insert writes it: a key of 20 digits, a parent link to a
// node boundary, the chunk of a channel inside the data file. Its child
// links are written again by later inserts; one that a cut tore is
// cleared with the other links out of the tree, and the node stays.
bool Whole(const _tagIDXNODE& node, DWORD dataSize) {
  for (const char c : node.cKey) {
    if (c < '0' || c > '9') return false;
  }
  if (node.dwParent != 0 && !OnNodeBoundary(node.dwParent)) return false;
  const signed char channel = node.Ref.cChannel;
  const DWORD offset = node.Ref.dwOffset;
  return channel >= 0 && channel < static_cast<signed char>(molra::kChannels) &&
         offset >= kDataHead && offset < dataSize;
}

DWORD Link(const _tagIDXNODE& node, bool left) { return left ? node.dwLeft : node.dwRight; }
void SetLink(_tagIDXNODE* node, bool left, DWORD to) {
  if (left) {
    node->dwLeft = to;
  } else {
    node->dwRight = to;
  }
}

molra::KeyText KeyOf(const SYSTEMTIME& t, int sequence) {
  return molra::MakeKey(t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond,
                        t.wMilliseconds, sequence);
}

// Chunk headers at rising offsets, read through one window that moves
// forward with them: a basket's whole run costs one sequential pass.
class ChunkHeads {
 public:
  ChunkHeads(CFsFile* data, DWORD size) : m_data(data), m_size(size) {}
  DWORD Size() const { return m_size; }
  bool Read(DWORD offset, _tagCHUNKHDR* chunk) {
    if (offset < kDataHead || offset > m_size || m_size - offset < kChunkHead) return false;
    if (offset < m_from || offset - m_from + kChunkHead > m_window.size()) {
      m_window.resize(std::min(kWindow, m_size - offset));
      m_from = offset;
      if (!m_data->ReadAt(offset, m_window.data(), static_cast<DWORD>(m_window.size()))) {
        m_window.clear();
        return false;
      }
    }
    std::memcpy(chunk, m_window.data() + (offset - m_from), kChunkHead);
    return true;
  }

 private:
  static constexpr DWORD kWindow = 256 * 1024;
  CFsFile* m_data;
  DWORD m_size;
  DWORD m_from = 0;
  std::vector<unsigned char> m_window;
};

// Whether the data file holds, at the node's offset, the chunk the node
// names: its stamp, channel and info word, and all of its payload.
bool ChunkHolds(ChunkHeads& heads, const _tagIDXNODE& node, DWORD* end) {
  const DWORD offset = node.Ref.dwOffset;
  const DWORD dataSize = heads.Size();
  _tagCHUNKHDR chunk;
  if (!heads.Read(offset, &chunk)) return false;
  const std::uint64_t stop = std::uint64_t{offset} + kChunkHead + chunk.dwLength;
  const SYSTEMTIME stamp = chunk.stTime;
  if (stop > dataSize || chunk.chChannel != node.Ref.cChannel ||
      chunk.dwInfo != node.Ref.dwInfo ||
      std::memcmp(KeyOf(stamp, 0).text, node.cKey, kStampChars) != 0) {
    return false;
  }
  *end = static_cast<DWORD>(stop);
  return true;
}

// A chunk header as a save lets it through.
bool Saveable(const _tagCHUNKHDR& chunk) {
  const SYSTEMTIME t = chunk.stTime;
  return chunk.chChannel >= 0 && chunk.chChannel < static_cast<signed char>(molra::kChannels) &&
         t.wMonth >= 1 && t.wMonth <= 12 && t.wDay >= 1 && t.wDay <= 31 &&
         t.wHour < molra::kHours && t.wMinute < molra::kMinutes &&
         chunk.dwLength <= molra::kMaxChunkLength;
}

int Digits(const char* text, int count) {
  int value = 0;
  for (int i = 0; i < count; ++i) value = value * 10 + (text[i] - '0');
  return value;
}

// The ends of a tree as the inserts that built it left them: a right
// child becomes the append point, a left child the first node, and a
// node without a parent past the first is a front that ageing cut.
struct Ends {
  DWORD root = kRootOffset, first = kRootOffset, last = kRootOffset;
};

Ends Replay(const std::vector<_tagIDXNODE>& nodes, DWORD count) {
  Ends ends;
  for (DWORD k = 1; k < count; ++k) {
    const DWORD parent = nodes[k].dwParent;
    if (parent == 0) {
      ends.root = ends.first = NodeAt(k);
    } else if (nodes[NodeSlot(parent)].dwLeft == NodeAt(k)) {
      ends.first = NodeAt(k);
    } else {
      ends.last = NodeAt(k);
    }
  }
  return ends;
}

// Nodes reachable from `root` through the links of the first `count`.
DWORD Reach(const std::vector<_tagIDXNODE>& nodes, DWORD count, DWORD root) {
  std::vector<char> reached(count, 0);
  DWORD total = 0;
  reached[NodeSlot(root)] = 1;
  for (DWORD k = NodeSlot(root); k < count; ++k) {
    if (!reached[k]) continue;
    ++total;
    for (const bool left : {true, false}) {
      const DWORD child = Link(nodes[k], left);
      if (child > NodeAt(k) && OnNodeBoundary(child) && NodeSlot(child) < count) {
        reached[NodeSlot(child)] = 1;
      }
    }
  }
  return total;
}

}  // namespace

int CFsIndex::Check(CFsFile* data, DWORD writePos, const _tagFSBSKINFO* record,
                    molra::IndexRepair* repair) {
  const bool saved = record != nullptr && record->dwChunks != 0;
  molra::IndexRepair& r = *repair;
  r = molra::IndexRepair();
  if (!IsOpen()) return 0;
  const _tagIDXHDR head = m_Hdr;
  r.header = head;
  // A header that Open rebuilt or freshened over a damaged one says
  // nothing of the tree.
  const bool valid = !m_bRebuilt && !m_bFreshened && molra::IsIndexHeader(head);
  // A valid header whose end lies on a node is believed as far as its
  // nodes bear it out; any other is rebuilt from the nodes.
  const bool believed = valid && (head.dwEnd == 0 || OnNodeBoundary(head.dwEnd));
  // An empty tree: whatever lies behind the header is of an earlier cycle
  // or was erased. Unless the basket counts chunks of this cycle: then a
  // fresh header went over a damaged one, and the chunks that run from
  // the first one to the write position are taken back.
  const bool emptied = believed && head.dwEnd == 0;
  if (emptied && !(data && saved && writePos > kDataHead)) return 1;

  // Both files hold at least their heads once open: a smaller size is a
  // failed question, not an answer.
  const DWORD size = GetSize();
  const DWORD dataSize = data ? data->GetSize() : 0xFFFFFFFFu;
  if (size < sizeof head || dataSize < kDataHead) return 0;
  const DWORD slots = (size - kRootOffset) / kNodeSize;
  const DWORD named = emptied    ? 0
                      : believed ? NodeSlot(head.dwEnd) + 1
                                 : std::min(slots, kRoomNodes);
  const DWORD limit = std::min(named, slots);

  std::vector<_tagIDXNODE> nodes;
  std::vector<DWORD> linker(limit, 0);  // the first kept node that links to a slot
  std::vector<char> dirty;
  const auto relinked = [&](DWORD parent) {
    if (r.relinked++ == 0) r.relinkedAt = parent;
  };
  DWORD kept = 0;
  for (DWORD k = 0; k < limit; ++k) {
    if (k == nodes.size()) {
      const size_t from = nodes.size();
      const DWORD count = std::min(k == 0 ? kFirstBlockNodes : kBlockNodes, limit - k);
      nodes.resize(from + count);
      if (!ReadAt(NodeAt(k), &nodes[from], count * kNodeSize)) return 0;
    }
    _tagIDXNODE& node = nodes[k];
    if (!Whole(node, dataSize)) break;
    const DWORD offset = NodeAt(k);
    const DWORD parent = node.dwParent;
    if (k == 0) {
      // The first node is the root: its parent link is never followed.
    } else if (parent == 0) {
      if (linker[k] == 0) break;
      // Only ageing leaves a linked node without a parent: the front of
      // the basket, which a believed header names as its root.
      if (believed && offset != head.dwRoot) {
        node.dwParent = linker[k];
        dirty.resize(nodes.size(), 0);
        dirty[k] = 1;
        relinked(linker[k]);
      }
    } else {
      if (parent >= offset) break;
      _tagIDXNODE& up = nodes[NodeSlot(parent)];
      if (up.dwLeft != offset && up.dwRight != offset) {
        // A lost link: the parent's side as the insert chose it, which
        // must still be free. A foreign header's tree ends here instead.
        if (!believed) break;
        const bool left =
            (node.Ref.dwInfo & kTopBit) == 0 && CompareKey(node.cKey, up.cKey, -1) < 0;
        const DWORD there = Link(up, left);
        if (there != 0 && OnNodeBoundary(there)) break;
        SetLink(&up, left, offset);
        dirty.resize(nodes.size(), 0);
        dirty[NodeSlot(parent)] = 1;
        relinked(parent);
      }
    }
    kept = k + 1;
    for (const bool left : {true, false}) {
      const DWORD child = Link(node, left);
      if (child > offset && OnNodeBoundary(child) && child < NodeAt(limit) &&
          linker[NodeSlot(child)] == 0) {
        linker[NodeSlot(child)] = offset;
      }
    }
  }
  nodes.resize(kept);
  dirty.resize(kept, 0);
  // A header that names more nodes than an index has room for names
  // them in a torn field: only the room counts as lost.
  const DWORD roomNamed = std::min(named, std::max(kRoomNodes, limit));
  if (believed && kept < roomNamed) {
    r.lost = roomNamed - kept;
    r.lostFrom = NodeAt(kept);
  }

  // Every node must name the chunk that the data file holds where the
  // chunk of the node before it ends: a cycle's chunks lie back to back
  // from the data head on, in the order of their nodes. A node of an
  // earlier cycle that a lost write left among this cycle's nodes names
  // its own chunk, but never where this cycle's run has got to; it ends
  // the tree, and so does a node whose chunk a lost write never stored.
  if (data) {
    ChunkHeads heads(data, dataSize);
    DWORD end = kDataHead;
    DWORD holding = 0;
    while (holding < kept && nodes[holding].Ref.dwOffset == end &&
           ChunkHolds(heads, nodes[holding], &end)) {
      ++holding;
    }
    r.chunkEnd = end;
    if (holding < kept) {
      r.dropped = kept - holding;
      r.droppedFrom = NodeAt(holding);
      kept = holding;
    }
    nodes.resize(kept);
    dirty.resize(kept);
  }

  // Chunks whose nodes damage took are entered again, behind the last
  // node, when they run back to back from its chunk to the data head's
  // write position exactly, their stamps rising within the span that the
  // basket's record gives (it is written after them); anything less is
  // not trusted: a header that a cut tore can still run on.
  const bool sameNodes = r.lost == 0 && r.dropped == 0;
  const DWORD free = kRoomNodes - std::min(kRoomNodes, kept);
  const DWORD room = believed && !emptied ? std::min(r.lost + r.dropped, free) : free;
  if (data && room != 0 && writePos > r.chunkEnd && writePos <= dataSize) {
    std::vector<std::pair<DWORD, _tagCHUNKHDR>> found;
    const bool spanned = record != nullptr && record->stLast.wYear != 0;
    molra::KeyText floor{}, ceiling{};
    if (spanned) {
      const SYSTEMTIME first = record->stFirst, last = record->stLast;  // packed: copied
      floor = KeyOf(first, 0);
      ceiling = KeyOf(last, 0);
    }
    if (kept != 0) std::memcpy(floor.text, nodes[kept - 1].cKey, kStampChars);
    DWORD at = r.chunkEnd;
    while (at < writePos) {
      _tagCHUNKHDR chunk;
      if (found.size() == room || writePos - at < kChunkHead ||
          !data->ReadAt(at, &chunk, sizeof chunk) || !Saveable(chunk) ||
          writePos - at - kChunkHead < chunk.dwLength) {
        break;
      }
      const SYSTEMTIME stamp = chunk.stTime;
      const molra::KeyText key = KeyOf(stamp, 0);
      if (std::memcmp(key.text, floor.text, kStampChars) < 0 ||
          (spanned && std::memcmp(key.text, ceiling.text, kStampChars) > 0)) {
        break;
      }
      floor = key;
      found.emplace_back(at, chunk);
      at += kChunkHead + chunk.dwLength;
    }
    if (at == writePos) {
      DWORD last = Replay(nodes, kept).last;
      int lastMs = kept != 0 ? Digits(nodes[kept - 1].cKey + 14, 4) : -1;
      int sequence = kept != 0 ? Digits(nodes[kept - 1].cKey + 18, 2) : 0;
      r.reentered = static_cast<DWORD>(found.size());
      r.reenteredFrom = NodeAt(kept);
      for (const auto& [offset, chunk] : found) {
        const SYSTEMTIME t = chunk.stTime;
        // The sequence as the saves counted it: up at equal milliseconds.
        sequence = t.wMilliseconds == lastMs ? sequence + 1 : 0;
        lastMs = t.wMilliseconds;
        _tagIDXNODE node = {};
        std::memcpy(node.cKey, KeyOf(t, sequence).text, sizeof node.cKey);
        node.Ref.cChannel = chunk.chChannel;
        node.Ref.dwInfo = chunk.dwInfo;
        node.Ref.dwOffset = offset;
        const DWORD slot = static_cast<DWORD>(nodes.size());
        if (slot != 0) {
          // Appended behind the append point, as a save appends.
          node.dwParent = last;
          nodes[NodeSlot(last)].dwRight = NodeAt(slot);
          dirty[NodeSlot(last)] = 1;
          last = NodeAt(slot);
        }
        nodes.push_back(node);
        dirty.push_back(1);
      }
      kept = static_cast<DWORD>(nodes.size());
      r.chunkEnd = writePos;
    }
  }

  // Links out of the tree go, but for the one to the slot behind an
  // intact end: an insert cut before its header leaves that one.
  const DWORD spared = believed && sameNodes ? NodeAt(named) : 0;
  for (DWORD k = 0; k < kept; ++k) {
    for (const bool left : {true, false}) {
      const DWORD child = Link(nodes[k], left);
      if (child == 0 || child == spared) continue;
      const bool inTree = child > NodeAt(k) && OnNodeBoundary(child) && NodeSlot(child) < kept &&
                          (nodes[NodeSlot(child)].dwParent == NodeAt(k) ||
                           nodes[NodeSlot(child)].dwParent == 0);
      if (inTree) continue;
      SetLink(&nodes[k], left, 0);
      dirty[k] = 1;
      if (r.cleared++ == 0) r.clearedAt = NodeAt(k);
    }
  }

  // The header the nodes call for.
  _tagIDXHDR h = molra::EmptyIndexHeader();
  h.dwOpen = believed ? head.dwOpen : 1;
  if (kept != 0) {
    const Ends ends = Replay(nodes, kept);
    const bool aged = believed && head.dwRoot != kRootOffset && OnNodeBoundary(head.dwRoot) &&
                      NodeSlot(head.dwRoot) < kept && nodes[NodeSlot(head.dwRoot)].dwParent == 0;
    h.dwEnd = NodeAt(kept - 1);
    h.dwLast = ends.last;
    if (aged) {
      // Ageing moved the front and counted what it kept: both stay.
      h.dwRoot = head.dwRoot;
      const bool firstKept = OnNodeBoundary(head.dwFirst) && NodeSlot(head.dwFirst) < kept;
      h.dwFirst = firstKept ? head.dwFirst : h.dwRoot;
      h.dwCount = sameNodes ? head.dwCount : Reach(nodes, kept, h.dwRoot);
    } else {
      h.dwRoot = ends.root;
      h.dwFirst = ends.first;
      h.dwCount = h.dwRoot == kRootOffset ? kept : Reach(nodes, kept, h.dwRoot);
    }
  }
  r.header = h;
  r.headerChanged = m_bRebuilt || std::memcmp(&h, &head, sizeof h) != 0;
  r.rebuilt = !believed && r.headerChanged;
  r.kept = kept;
  for (DWORD k = kept; k-- > 0;) {
    if (dirty[k]) r.nodes.emplace_back(NodeAt(k), nodes[k]);
  }
  return 1;
}

int CFsIndex::Apply(const molra::IndexRepair& repair, bool write) {
  if (!IsOpen()) return 0;
  m_Run.length = 0;
  m_Scan.length = 0;
  if (write) {
    // Nodes before the links to them, and the header after both: a cut
    // repair leaves a tree that the next check finds as it was.
    for (const auto& [offset, node] : repair.nodes) {
      if (!WriteNode(&node, offset)) return 0;
    }
    if (repair.headerChanged) {
      if (!WriteHeader(&repair.header)) return 0;
      m_bWrote = true;
    }
    m_bRebuilt = m_bFreshened = false;
  }
  m_Hdr = repair.header;
  return 1;
}

}  // namespace detail
}  // namespace molra
