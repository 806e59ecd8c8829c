// Handing a chunk out to the caller: the one road by which recordings
// leave the store, with the test that keeps a damaged record away from
// the host, and the log of what it refused.
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "disk/store_paths.h"
#include "disk/fs_file.h"
#include "disk/status_log.h"
#include "index/fs_index.h"
#include "index/index_format.h"
#include "molra/molra.h"
#include "platform/settings.h"
#include "playback/walk_limits.h"

using molra::detail::CFsFile;
using molra::detail::CFsIndex;

namespace {


// Limits a record must keep to be handed out. The upper limits themselves
// pass: hour 24, minute and second 60.
bool Plausible(const _tagCHUNKHDR& header) {
  const SYSTEMTIME stamp = header.stTime;
  return stamp.wMonth <= 12 && stamp.wDay <= 31 && stamp.wHour <= 24 && stamp.wMinute <= 60 &&
         stamp.wSecond <= 60 && header.dwLength <= molra::kMaxChunkLength;
}

// The strict test: the header agrees with the node that leads to it, and
// the chunk lies within what the data head counts as written. The head is
// read afresh, as the recorder may have moved it since this reader opened
// the basket; and as the recorder writes the chunk and its node before the
// head, a chunk that starts right at the head may reach past it.
bool AgreesWithIndex(CFsFile* data, CFsIndex* index, const _tagIDXREF& ref,
                     const _tagCHUNKHDR& read) {
  if (read.chChannel != ref.cChannel || read.dwInfo != ref.dwInfo) return false;
  _tagIDXNODE node;
  // The node under the cursor is the one that named the chunk; a walk that
  // moved on keeps only the reference's own fields to compare.
  if (index && index->Cursor() != 0 && index->ReadAt(index->Cursor(), &node, sizeof node) &&
      node.Ref.dwOffset == ref.dwOffset) {
    const SYSTEMTIME t = read.stTime;
    const molra::KeyText key = molra::MakeKey(t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
                                              t.wSecond, t.wMilliseconds, 0);
    if (CFsIndex::CompareKey(key.text, node.cKey, 18) != 0) return false;
  }
  DWORD head = 0;
  if (!data->ReadAt(offsetof(_tagDATAHDR, dwWritePos), &head, sizeof head)) return false;
  const std::uint64_t end = std::uint64_t{ref.dwOffset} + sizeof read + read.dwLength;
  return ref.dwOffset >= sizeof(_tagDATAHDR) && (end <= head || ref.dwOffset == head);
}

}  // namespace

LONG CMOLRA::ReadOut(const _tagIDXREF& ref, _tagCHUNKHDR* header, unsigned char* payload,
                     ReadKind kind, bool refuseEmpty) {
  // Held for the whole read: a message step of the host may close the store.
  const std::shared_ptr<CFsFile> data = m_pData;
  // What a short read brings stays in the caller's header, as any read.
  if (!data || !data->ReadAt(ref.dwOffset, header, sizeof *header)) return FS_ERR_FILE;
  _tagCHUNKHDR read;
  std::memcpy(&read, header, sizeof read);
  if (!Plausible(read) || (refuseEmpty && read.dwLength == 0) ||
      (molra::platform::StrictChunks() &&
       !AgreesWithIndex(data.get(), m_pIndex.get(), ref, read))) {
    FsNoExistData(header);
    return FS_ERR_FILE;
  }
  if (kind == ReadKind::kSeek) {
    std::memset(m_ChanHits, 0, sizeof m_ChanHits);
    if (molra::CountsHits(ref.cChannel)) m_ChanHits[ref.cChannel] = 1;
  }
  if (kind != ReadKind::kSkip) std::memcpy(&m_stLastRead, &header->stTime, sizeof m_stLastRead);

  const DWORD length = read.dwLength;
  // The payload lies right behind the header; an offset at the very top
  // of the 32-bit range has no room for it.
  const bool reachable = ref.dwOffset <= 0xFFFFFFFFu - sizeof read;
  if (length != 0 &&
      (payload == nullptr || !reachable ||
       !data->ReadAt(ref.dwOffset + static_cast<DWORD>(sizeof read), payload, length))) {
    return kind == ReadKind::kSeek ? FS_ERR_FILE : FS_ERR_PARAM;
  }
  // A recorder that reset the basket meanwhile has written over the chunk
  // from its header on: the header must still be the one read.
  _tagCHUNKHDR again;
  if (molra::platform::StrictChunks() &&
      (!data->ReadAt(ref.dwOffset, &again, sizeof again) ||
       std::memcmp(&again, &read, sizeof again) != 0)) {
    FsNoExistData(header);
    return FS_ERR_FILE;
  }
  OnReadingData(header);
  return FS_OK;
}

void CMOLRA::FsNoExistData(_tagCHUNKHDR* header) {
  if (header == nullptr) return;
  const CString now = CTime::GetCurrentTime().Format("%Y-%m-%d %H:%M:%S");
  const _tagFSBSKINFO* basket = m_nOpenBasket >= 0 ? Basket(static_cast<DWORD>(m_nOpenBasket))
                                                    : nullptr;
  const SYSTEMTIME stamp = header->stTime;
  const DWORD length = header->dwLength;
  char lines[512];
  std::snprintf(lines, sizeof lines,
                "FsNoExistData Time = %s\nReadData():[%.64s]:[%d-%d, %d:%d:%d]:[%d]\n",
                static_cast<const char*>(now), basket ? basket->szPath : "", stamp.wMonth,
                stamp.wDay, stamp.wHour, stamp.wMinute, stamp.wSecond, static_cast<int>(length));
  // Without the log directory the lines are lost; the read still fails.
  molra::AppendLogText(molra::kDefectLogPath, lines);
}

bool CMOLRA::Placed() const {
  // OpenFS makes a new index object, which has no cursor until a lookup.
  return m_pIndex && (m_pIndex->Cursor() != 0 || m_pIndex->Header().dwEnd == 0);
}

LONG CMOLRA::ReadFirstData(_tagCHUNKHDR* /*header*/, unsigned char* /*payload*/,
                           unsigned char /*bDaylight*/) {
  if (!StoreOpen()) return FS_ERR_FILE;
  return m_nMode == 1 ? FS_ERR_FILE : FS_ERR_MODE;
}

LONG CMOLRA::ReadLastData(_tagCHUNKHDR* header, unsigned char* payload, unsigned char bDaylight) {
  return ReadFirstData(header, payload, bDaylight);
}
