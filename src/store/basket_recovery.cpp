// Setting right at a recording open what damage has left in a basket:
// a recorder that believed it would stop, or write over its own chunks.
#include "store/basket_recovery.h"

#include <cstddef>
#include <cstdio>
#include <string>

#include "disk/fs_file.h"
#include "disk/status_log.h"
#include "index/fs_index.h"
#include "store/store_files.h"

using molra::detail::CFsFile;
using molra::detail::CFsIndex;
using molra::detail::FsStatusLog;

namespace molra {
namespace {

// One part of the log line: "<file> at <offset> : <what>".
void Part(std::string* line, const char* file, DWORD offset, const char* what) {
  char text[256];
  std::snprintf(text, sizeof text, "%s%s at %u : %s", line->empty() ? "" : "; ", file,
                static_cast<unsigned>(offset), what);
  *line += text;
}

std::string Said(const char* format, DWORD a, DWORD b = 0) {
  char text[128];
  std::snprintf(text, sizeof text, format, static_cast<unsigned>(a), static_cast<unsigned>(b));
  return text;
}

}  // namespace

void RecoverBasket(const _tagFSBSKINFO& basket, CFsIndex* index, CFsFile* data,
                   _tagDATAHDR* head) {
  IndexRepair repair;
  // An index that cannot be read is believed as it stands.
  if (!index->Check(data, head->dwWritePos, &basket, &repair)) return;
  const DWORD was = head->dwWritePos;
  // Saves go on exactly where the last chunk of the tree ends: a gap
  // would break the run of chunks that the next check follows.
  const bool headHolds = was == repair.chunkEnd;
  if (!repair.Needed() && headHolds) return;

  bool written = !repair.Needed() || index->Apply(repair, true);
  if (!headHolds) {
    // Behind the last chunk the index names: nothing of this cycle lies
    // further on that a reader could find.
    head->dwWritePos = repair.chunkEnd;
    written = data->WriteAt(0, head, sizeof *head) && written;
  }

  const BasketFile cin(basket.szPath, kIndexExt);
  const BasketFile cdt(basket.szPath, kDataExt);
  std::string line;
  if (repair.rebuilt) {
    Part(&line, cin, 0, Said("header rebuilt from its nodes, %u kept", repair.kept).c_str());
  } else if (repair.headerChanged) {
    Part(&line, cin, 0, Said("header set to its nodes, %u kept", repair.kept).c_str());
  }
  if (repair.relinked != 0) {
    Part(&line, cin, repair.relinkedAt, Said("lost links restored: %u", repair.relinked).c_str());
  }
  if (repair.lost != 0) {
    Part(&line, cin, repair.lostFrom, Said("nodes lost: %u", repair.lost).c_str());
  }
  if (repair.dropped != 0) {
    Part(&line, cin, repair.droppedFrom,
         Said("nodes dropped, their chunks are not in the data file: %u", repair.dropped).c_str());
  }
  if (repair.cleared != 0) {
    Part(&line, cin, repair.clearedAt,
         Said("links out of the tree cleared: %u", repair.cleared).c_str());
  }
  if (repair.reentered != 0) {
    Part(&line, cin, repair.reenteredFrom,
         Said("chunks entered again from the data file: %u", repair.reentered).c_str());
  }
  if (!headHolds) {
    Part(&line, cdt, offsetof(_tagDATAHDR, dwWritePos),
         Said("write position %u set to %u", was, head->dwWritePos).c_str());
  }
  if (!written) line += " (not written)";
  FsStatusLog(("Basket Repair - " + line).c_str());
}

void ReadRebuiltIndex(CFsIndex* index, CFsFile* data) {
  if (!index->Rebuilt()) return;
  IndexRepair repair;
  if (index->Check(data, 0, nullptr, &repair)) index->Apply(repair, false);
}

}  // namespace molra
