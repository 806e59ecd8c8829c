// The chunk index of one basket: a binary tree of fixed-size nodes that
// lives entirely in its .CIN file. Only the header is held in memory;
// every insert writes through, every lookup reads the file.
//
// Keys normally arrive in time order, so each new node becomes the right
// child of the one before and the tree is one right-leaning chain in file
// order. Out-of-order keys descend from the first node.
#pragma once

#include <utility>
#include <vector>

#include "disk/fs_file.h"
#include "index/index_format.h"

namespace molra {

// What a check of a tree against its header (and its basket's data file)
// found, and what sets it right. Offsets are those of the .CIN file.
struct IndexRepair {
  _tagIDXHDR header{};  // the header the nodes call for
  // Nodes to write back whole, children before their parents.
  std::vector<std::pair<DWORD, _tagIDXNODE>> nodes;
  bool headerChanged = false;
  bool rebuilt = false;  // the header said nothing of the tree: rebuilt from the nodes
  DWORD kept = 0;        // nodes the tree holds afterwards, new ones included
  DWORD lost = 0, lostFrom = 0;          // nodes the header names that damage took
  DWORD dropped = 0, droppedFrom = 0;    // tail nodes whose chunk is not theirs
  DWORD relinked = 0, relinkedAt = 0;    // lost links set again; the first parent
  DWORD cleared = 0, clearedAt = 0;      // links out of the tree; the first node
  DWORD reentered = 0, reenteredFrom = 0;  // chunks entered again from the data
  // Where the chunk of the last node ends: where data may go on.
  DWORD chunkEnd = sizeof(_tagDATAHDR);

  bool Needed() const { return headerChanged || !nodes.empty(); }
};

}  // namespace molra

namespace molra {
namespace detail {

class CFsIndex : public CFsFile {
 public:
  CFsIndex();
  // Does what Close does, and releases the file even when the header
  // cannot be written.
  ~CFsIndex() override;

  // Opens the file; a short or foreign header, or `reset`, gives a fresh
  // empty tree, but a foreign header over a tree of nodes is rebuilt from
  // them in memory only. A valid header is believed as it stands.
  int Open(char const* path, int mode, int reset);
  // Marks the header closed and closes the file. An object that has never
  // written the header marks only the open word, so that a reader's stale
  // copy never sets a recorder's tree back.
  int Close();
  // Close and Open again with reset 0, on the handle already open: what
  // the two write and read happens alike. 1 on success, -1 where Close
  // would fail (the file stays open), 0 where Open would (it is closed).
  int Reopen();
  // Enters `key` (20 characters). A duplicate found by a descent is
  // refused; a key with the top bit of dwInfo set is appended unseen.
  int Insert(const char* key, const _tagIDXREF& ref);

  // Recovery. Check reads the tree as its nodes hold it, in order of
  // arrival, and works out what damage has broken; it writes nothing.
  // With `data` it also tests the chunks of the last nodes and, where
  // damage took nodes, enters again the chunks behind the last one that
  // end exactly at `writePos`, in stamp order and inside the span of the
  // basket's `record`. A record that counts chunks of this cycle says that
  // an empty tree lost them too. Apply takes the repair into memory and,
  // with `write`, into the file: nodes first, the header last.
  int Check(CFsFile* data, DWORD writePos, const _tagFSBSKINFO* record,
            molra::IndexRepair* repair);
  int Apply(const molra::IndexRepair& repair, bool write);
  // Open found a foreign header over nodes and rebuilt it in memory only.
  bool Rebuilt() const { return m_bRebuilt; }

  // Unsigned byte compare of the first `n` characters (-1: all 20).
  static int CompareKey(const char* a, const char* b, int n);

  // Lookups. `key` outputs get 20 characters and no terminator.
  int Find(const char* key, _tagIDXREF* ref, int n);
  int First(char* key, _tagIDXREF* ref);
  int Last(char* key, _tagIDXREF* ref);
  int Next(char* key, _tagIDXREF* ref);
  int Prev(char* key, _tagIDXREF* ref);
  int NextNode(_tagIDXNODE* node, DWORD offset, DWORD* found);
  int PrevNode(_tagIDXNODE* node, DWORD offset, DWORD* found);
  int Search(const char* key, _tagIDXNODE* node, DWORD* found, int n);

  const _tagIDXHDR& Header() const { return m_Hdr; }
  DWORD Cursor() const { return m_dwCursor; }

  // A run of Next or Prev calls (a walk to one channel's next chunk, a
  // key-frame skip) reads its nodes in blocks, in the direction of the
  // walk, that grow from `firstBlock` bytes (at least a node) up to the
  // read-ahead size, until EndRun.
  // Opening, closing or writing drops the block. The answers are those of
  // single calls made in quick succession: a link that another writer sets
  // meanwhile is seen as the node stood when its block was read.
  void BeginRun(DWORD firstBlock);
  void EndRun();

  // How many bytes a scan from the first node reads at a time; 0 reads
  // node by node. The answers are the same either way.
  void SetReadAhead(DWORD bytes) { m_dwReadAhead = bytes < kMaxReadAhead ? bytes : kMaxReadAhead; }
  static constexpr DWORD kMaxReadAhead = 1024 * 1024;

 protected:
  // Nodes read ahead during one scan; valid for that scan only.
  struct NodeBlock {
    std::vector<BYTE> bytes;
    DWORD start = 0;
    DWORD length = 0;
    DWORD next = 0;  // bytes of the next read; 0: the read-ahead size
  };

  // The halves of Open and Close that work on the header, not the handle.
  // TakeHeader closes the file when it fails.
  int TakeHeader(int reset);
  int PutHeaderAway();
  int ReadNode(_tagIDXNODE* node, DWORD offset);
  int WriteNode(const _tagIDXNODE* node, DWORD offset);
  int ReadHeader(_tagIDXHDR* header);
  int WriteHeader(const _tagIDXHDR* header);
  // ReadNode through the scan's block of nodes read ahead; a backward
  // block ends at the node asked for.
  int ReadNodeAhead(_tagIDXNODE* node, DWORD offset, NodeBlock* block, bool backward = false);
  // The block of a new scan: the object's own, so that its memory is made
  // once and lookups allocate nothing after the first.
  NodeBlock& FreshScan() {
    m_Scan.length = 0;
    return m_Scan;
  }
  // ReadNode, through the run's block while a run lasts.
  int ReadWalkNode(_tagIDXNODE* node, DWORD offset, bool forward);
  // Finds the parent of a new node at `newOffset`, with its link already
  // set in `parent`; side 1 is left, 2 right.
  int Descend(const char* key, DWORD newOffset, _tagIDXNODE* parent, DWORD* parentOffset,
              int* side);
  int CopyOut(const _tagIDXNODE& node, DWORD offset, char* key, _tagIDXREF* ref);
  // NextNode (forward) and PrevNode.
  int Walk(_tagIDXNODE* node, DWORD offset, DWORD* found, bool forward);
  // A descent meets each node once at most: one of more steps than the
  // file holds nodes goes round a loop of damaged links. The file's size
  // is asked only once a descent is longer than a made index has room for.
  bool Looping(DWORD steps, DWORD* room);

  _tagIDXHDR m_Hdr;
  DWORD m_dwCursor = 0;
  bool m_bWrote = false;  // this object has written the header
  bool m_bRebuilt = false;    // the header in memory is not the file's
  bool m_bFreshened = false;  // Open put a fresh header over a short or foreign one
  DWORD m_dwReadAhead;
  NodeBlock m_Scan;
  NodeBlock m_Run;
  bool m_bRun = false;
};

}  // namespace detail
}  // namespace molra
