// Opening, closing and filling a basket's index tree.
#include "index/fs_index.h"

#include <cstring>

#include "platform/settings.h"

namespace molra {
namespace detail {

namespace {

constexpr DWORD kTopBit = 0x80000000u;
constexpr DWORD kDefaultReadAhead = 64 * 1024;

void FreshHeader(_tagIDXHDR* header) { *header = molra::EmptyIndexHeader(); }

}  // namespace

CFsIndex::CFsIndex() : m_dwReadAhead(kDefaultReadAhead) { FreshHeader(&m_Hdr); }

CFsIndex::~CFsIndex() {
  if (IsOpen() && !Close()) CFsFile::Close();
}

int CFsIndex::CompareKey(const char* a, const char* b, int n) {
  // Anything but a prefix length of 0 to 20 compares the whole key.
  const int length = n < 0 || n > static_cast<int>(molra::kKeyLength)
                         ? static_cast<int>(molra::kKeyLength)
                         : n;
  for (int i = 0; i < length; ++i) {
    const int d = static_cast<unsigned char>(a[i]) - static_cast<unsigned char>(b[i]);
    if (d != 0) return d;
  }
  return 0;
}

// No node lies inside the header: a link or cursor that points there is
// damage or no position at all, and must neither read nor overwrite it.
int CFsIndex::ReadNode(_tagIDXNODE* node, DWORD offset) {
  if (offset < molra::kRootOffset) return 0;
  return ReadAt(offset, node, sizeof *node);
}

int CFsIndex::WriteNode(const _tagIDXNODE* node, DWORD offset) {
  if (offset < molra::kRootOffset) return 0;
  m_Run.length = 0;
  return WriteAt(offset, node, sizeof *node);
}

int CFsIndex::ReadHeader(_tagIDXHDR* header) {
  return ReadAt(0, header, sizeof *header);
}

int CFsIndex::WriteHeader(const _tagIDXHDR* header) {
  return WriteAt(0, header, sizeof *header);
}

int CFsIndex::ReadNodeAhead(_tagIDXNODE* node, DWORD offset, NodeBlock* block, bool backward) {
  if (m_dwReadAhead < sizeof *node || offset < molra::kRootOffset) return ReadNode(node, offset);
  const auto inBlock = [&] {
    return offset >= block->start && offset - block->start <= block->length &&
           block->length - (offset - block->start) >= sizeof *node;
  };
  if (!inBlock()) {
    // Read the nodes that follow (or, walking back, lead up to) this one in
    // one go: a chain lies in file order. Only what the file holds counts,
    // so a node beyond its end fails exactly as a read of that node alone.
    const DWORD want = block->next != 0 && block->next < m_dwReadAhead ? block->next
                                                                       : m_dwReadAhead;
    const DWORD end = offset + static_cast<DWORD>(sizeof *node);
    const DWORD start = !backward ? offset : end > want ? end - want : 0;
    const DWORD length = backward ? end - start : want;
    block->bytes.resize(length);
    DWORD done = 0;
    if (end < offset || !m_hFile || !m_hFile->ReadAt(start, block->bytes.data(), length, &done)) {
      block->length = 0;
      return ReadNode(node, offset);
    }
    block->start = start;
    block->length = done;
    if (block->next != 0 && block->next < m_dwReadAhead) block->next *= 2;
    if (!inBlock()) return ReadNode(node, offset);
  }
  std::memcpy(node, block->bytes.data() + (offset - block->start), sizeof *node);
  return 1;
}

void CFsIndex::BeginRun(DWORD firstBlock) {
  m_bRun = true;
  m_Run.length = 0;
  m_Run.next = firstBlock > molra::kNodeSize ? firstBlock : molra::kNodeSize;
  // Once for the object's life: the walks of playback allocate nothing.
  if (m_Run.bytes.capacity() < m_dwReadAhead) m_Run.bytes.reserve(m_dwReadAhead);
}

void CFsIndex::EndRun() {
  m_bRun = false;
  m_Run.length = 0;
}

int CFsIndex::ReadWalkNode(_tagIDXNODE* node, DWORD offset, bool forward) {
  return m_bRun ? ReadNodeAhead(node, offset, &m_Run, !forward) : ReadNode(node, offset);
}

int CFsIndex::Open(char const* path, int mode, int reset) {
  m_Run.length = 0;
  if (!CFsFile::Open(path, mode)) return 0;
  return TakeHeader(reset);
}

int CFsIndex::Reopen() {
  if (!PutHeaderAway()) return -1;
  return TakeHeader(0) ? 1 : 0;
}

int CFsIndex::TakeHeader(int reset) {
  m_Run.length = 0;
  // The cursor stays: after a failed lookup a reader steps on from the
  // last node it handed out, whichever basket that was in.
  m_bWrote = false;
  m_bRebuilt = m_bFreshened = false;
  if (GetSize() >= sizeof(_tagIDXHDR) && !reset) {
    if (!ReadHeader(&m_Hdr)) {
      CFsFile::Close();
      return 0;
    }
    if (molra::IsIndexHeader(m_Hdr)) {
      return 1;
    }
    // A foreign header over a tree of nodes is damage, not a new file: a
    // fresh header would cut every node off and let the next inserts
    // overwrite them. The tree is taken from its nodes, in memory only.
    molra::IndexRepair repair;
    if (Check(nullptr, 0, nullptr, &repair) && repair.kept != 0) {
      m_Hdr = repair.header;
      m_bRebuilt = true;
      return 1;
    }
  }
  FreshHeader(&m_Hdr);
  m_Hdr.dwOpen = 1;
  if (!WriteHeader(&m_Hdr)) {
    CFsFile::Close();
    return 0;
  }
  m_bFreshened = !reset;
  return 1;
}

int CFsIndex::Close() {
  return PutHeaderAway() && CFsFile::Close() ? 1 : 0;
}

int CFsIndex::PutHeaderAway() {
  m_Run.length = 0;
  if (!IsOpen()) return 0;
  m_Hdr.dwOpen = 0;
  if (m_bWrote) {
    if (!WriteHeader(&m_Hdr)) return 0;
  } else {
    // A copy of the header that this object only read may be older than
    // the file by now: only the open word is ours to write.
    if (!WriteAt(offsetof(_tagIDXHDR, dwOpen), &m_Hdr.dwOpen, sizeof m_Hdr.dwOpen)) {
      return 0;
    }
  }
  return 1;
}

int CFsIndex::Descend(const char* key, DWORD newOffset, _tagIDXNODE* parent,
                      DWORD* parentOffset, int* side) {
  NodeBlock& block = FreshScan();
  DWORD offset = molra::kRootOffset;
  if (!ReadNodeAhead(parent, offset, &block)) return 0;
  bool fresh = m_dwReadAhead < sizeof *parent;
  DWORD steps = 0;
  DWORD room = 0;
  for (;;) {
    const int order = CompareKey(key, parent->cKey, -1);
    if (order == 0) return 0;  // a duplicate is refused
    DWORD* link = order < 0 ? &parent->dwLeft : &parent->dwRight;
    if (*link == 0 && !fresh) {
      // A link may have been set since the block was read; the parent
      // that is written back must be the node as it stands.
      if (!ReadNode(parent, offset)) return 0;
      fresh = true;
      continue;
    }
    if (*link == 0) {
      *link = newOffset;
      *parentOffset = offset;
      *side = order < 0 ? 1 : 2;
      return 1;
    }
    if (Looping(++steps, &room)) return 0;
    offset = *link;
    molra::platform::MessageStep();
    if (!ReadNodeAhead(parent, offset, &block)) return 0;
    fresh = m_dwReadAhead < sizeof *parent;
  }
}

int CFsIndex::Insert(const char* key, const _tagIDXREF& ref) {
  if (!IsOpen()) return 0;
  // From the first insert on, this object's header is the file's.
  m_bWrote = true;
  _tagIDXNODE node = {};
  node.Ref = ref;
  std::memcpy(node.cKey, key, sizeof node.cKey);

  if (m_Hdr.dwEnd == 0) {
    if (!WriteNode(&node, molra::kRootOffset)) return 0;
    m_Hdr.dwRoot = m_Hdr.dwEnd = m_Hdr.dwFirst = m_Hdr.dwLast = molra::kRootOffset;
    m_Hdr.dwCount = 1;
    if (!WriteHeader(&m_Hdr)) {
      m_Hdr.dwRoot = m_Hdr.dwEnd = m_Hdr.dwFirst = m_Hdr.dwLast = m_Hdr.dwCount = 0;
      return 0;
    }
    return 1;
  }

  const DWORD n = m_Hdr.dwEnd + molra::kNodeSize;
  _tagIDXNODE last;
  const bool haveLast = ReadNode(&last, m_Hdr.dwLast);
  const DWORD info = ref.dwInfo;
  if (haveLast && ((info & kTopBit) != 0 || CompareKey(key, last.cKey, -1) > 0)) {
    // Append behind the append point, without a descent.
    node.dwParent = m_Hdr.dwLast;
    if (!WriteNode(&node, n)) return 0;
    last.dwRight = n;
    if (!WriteNode(&last, m_Hdr.dwLast)) return 0;
    ++m_Hdr.dwCount;
    m_Hdr.dwLast = m_Hdr.dwEnd = n;
    WriteHeader(&m_Hdr);  // a failed header write is made up at the next one
    return 1;
  }

  _tagIDXNODE parent;
  DWORD parentOffset = 0;
  int side = 0;
  if (!Descend(key, n, &parent, &parentOffset, &side)) return 0;
  node.dwParent = parentOffset;
  if (!WriteNode(&node, n)) return 0;
  if (!WriteNode(&parent, parentOffset)) return 0;
  if (side == 1) {
    m_Hdr.dwFirst = n;
  } else {
    m_Hdr.dwLast = n;
  }
  m_Hdr.dwEnd = n;
  ++m_Hdr.dwCount;
  WriteHeader(&m_Hdr);
  return 1;
}

}  // namespace detail
}  // namespace molra
