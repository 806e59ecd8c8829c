// The chunk index of one basket: a binary tree of fixed-size nodes that
// lives entirely in its .CIN file. Only the header is held in memory;
// every insert writes through, every lookup reads the file.
//
// Keys normally arrive in time order, so each new node becomes the right
// child of the one before and the tree is one right-leaning chain in file
// order. Out-of-order keys descend from the first node.
#pragma once

#include <vector>

#include "disk/fs_file.h"
#include "index/index_format.h"

class CFsIndex : public CFsFile {
 public:
  CFsIndex();
  // Does what Close does, and releases the file even when the header
  // cannot be written.
  ~CFsIndex() override;

  // Opens the file; a short or foreign header, or `reset`, gives a fresh
  // empty tree. A valid header is believed as it stands.
  int Open(char const* path, int mode, int reset);
  // Marks the header closed and closes the file. An object that has never
  // written the header marks only the open word, so that a reader's stale
  // copy never sets a recorder's tree back.
  int Close();
  // Enters `key` (20 characters). A duplicate found by a descent is
  // refused; a key with the top bit of dwInfo set is appended unseen.
  int Insert(const char* key, const _tagIDXREF& ref);

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

  _tagIDXHDR m_Hdr;
  DWORD m_dwCursor = 0;
  bool m_bWrote = false;  // this object has written the header
  DWORD m_dwReadAhead;
  NodeBlock m_Scan;
  NodeBlock m_Run;
  bool m_bRun = false;
};
