// Finding chunks in a basket's index and walking it both ways.
#include <cstring>

#include "index/fs_index.h"
#include "platform/settings.h"

namespace molra {
namespace detail {

namespace {

// A climb from the end of a run of links gives up after this many parents.
constexpr int kMaxClimb = 160;

}  // namespace

int CFsIndex::CopyOut(const _tagIDXNODE& node, DWORD offset, char* key, _tagIDXREF* ref) {
  if (key) std::memcpy(key, node.cKey, sizeof node.cKey);
  if (ref) *ref = node.Ref;
  m_dwCursor = offset;
  return 1;
}

bool CFsIndex::Looping(DWORD steps, DWORD* room) {
  constexpr DWORD kMadeRoom = (molra::kIndexFileSize - molra::kRootOffset) / molra::kNodeSize;
  if (steps <= kMadeRoom) return false;
  if (*room == 0) *room = GetSize() / molra::kNodeSize + 1;
  return steps > *room;
}

int CFsIndex::Search(const char* key, _tagIDXNODE* node, DWORD* found, int n) {
  NodeBlock& block = FreshScan();
  DWORD offset = molra::kRootOffset;
  if (!ReadNodeAhead(node, offset, &block)) return 0;
  bool fresh = m_dwReadAhead < sizeof *node;
  DWORD steps = 0;
  DWORD room = 0;
  for (;;) {
    const int order = CompareKey(key, node->cKey, n);
    // A node read ahead may lack a link set since: before the walk ends
    // on it, it is read as it stands, so that the answer is the one a
    // node-by-node walk would give.
    const DWORD link = order < 0 ? node->dwLeft : node->dwRight;
    if ((order == 0 || link == 0) && !fresh) {
      if (!ReadNode(node, offset)) return 0;
      fresh = true;
      continue;
    }
    if (order == 0) {
      *found = offset;
      return 1;
    }
    if (link == 0 || Looping(++steps, &room)) return 0;
    offset = link;
    molra::platform::MessageStep();
    if (!ReadNodeAhead(node, offset, &block)) return 0;
    fresh = m_dwReadAhead < sizeof *node;
  }
}

int CFsIndex::Find(const char* key, _tagIDXREF* ref, int n) {
  if (!IsOpen() || m_Hdr.dwEnd == 0) return 0;
  _tagIDXNODE node;
  DWORD found = 0;
  if (!Search(key, &node, &found, n)) return 0;
  return CopyOut(node, found, nullptr, ref);
}

int CFsIndex::First(char* key, _tagIDXREF* ref) {
  if (!IsOpen() || m_Hdr.dwEnd == 0) return 0;
  _tagIDXNODE node;
  if (!ReadNode(&node, m_Hdr.dwFirst)) return 0;
  return CopyOut(node, m_Hdr.dwFirst, key, ref);
}

int CFsIndex::Last(char* key, _tagIDXREF* ref) {
  if (!IsOpen() || m_Hdr.dwEnd == 0) return 0;
  _tagIDXNODE node;
  if (!ReadNode(&node, m_Hdr.dwEnd)) return 0;
  return CopyOut(node, m_Hdr.dwEnd, key, ref);
}

int CFsIndex::Next(char* key, _tagIDXREF* ref) {
  if (!IsOpen() || m_dwCursor == m_Hdr.dwEnd) return 0;
  _tagIDXNODE node;
  DWORD found = 0;
  if (!NextNode(&node, m_dwCursor, &found)) return 0;
  return CopyOut(node, found, key, ref);
}

int CFsIndex::Prev(char* key, _tagIDXREF* ref) {
  if (!IsOpen() || m_dwCursor == m_Hdr.dwFirst) return 0;
  _tagIDXNODE node;
  DWORD found = 0;
  if (!PrevNode(&node, m_dwCursor, &found)) return 0;
  return CopyOut(node, found, key, ref);
}

int CFsIndex::NextNode(_tagIDXNODE* node, DWORD offset, DWORD* found) {
  return Walk(node, offset, found, true);
}

int CFsIndex::PrevNode(_tagIDXNODE* node, DWORD offset, DWORD* found) {
  return Walk(node, offset, found, false);
}

// Forward: the right child itself, else up to the first parent that has
// the way up as its left child. Backward is the mirror image.
int CFsIndex::Walk(_tagIDXNODE* node, DWORD offset, DWORD* found, bool forward) {
  const auto ahead = [forward](const _tagIDXNODE& n) { return forward ? n.dwRight : n.dwLeft; };
  const auto behind = [forward](const _tagIDXNODE& n) { return forward ? n.dwLeft : n.dwRight; };
  if (!ReadWalkNode(node, offset, forward)) return 0;
  if (ahead(*node) != 0) {
    *found = ahead(*node);
    return ReadWalkNode(node, *found, forward);
  }
  DWORD child = offset;
  DWORD parent = node->dwParent;
  if (parent == 0 || !ReadWalkNode(node, parent, forward)) return 0;
  for (int pass = 1; pass <= kMaxClimb; ++pass) {
    if (behind(*node) == child) {
      *found = parent;
      return 1;
    }
    // A parent that does not link back, or the root reached from the far
    // side: nothing follows.
    if (ahead(*node) != child || node->dwParent == 0) return 0;
    child = parent;
    parent = node->dwParent;
    molra::platform::MessageStep();
    if (!ReadWalkNode(node, parent, forward)) return 0;
  }
  return 0;
}

}  // namespace detail
}  // namespace molra
