// Ageing the oldest basket by a retention time: erased whole when all of
// it is out of date, cut at the front when part of it is.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "disk/status_log.h"
#include "index/fs_index.h"
#include "molra/molra.h"
#include "platform/env.h"
#include "store/store_files.h"

using molra::detail::CFsFile;
using molra::detail::CFsIndex;
using molra::detail::FsStatusLog;

namespace platform = molra::platform;

namespace {

constexpr DWORD kRecordSize = sizeof(_tagFSBSKTBL);
// The earliest cut-off, 0001-01-02 00:00 UTC: a day into year 1, so that
// its local date lies in year 1 or later in every zone.
constexpr std::int64_t kFirstCutOff = -62135596800 + 86400;

// Text date "%04d%02d%02d": text order is calendar order.
std::string DateText(int year, int month, int day) {
  char text[32];
  std::snprintf(text, sizeof text, "%04d%02d%02d", year, month, day);
  return text;
}

std::string DateText(const SYSTEMTIME& t) { return DateText(t.wYear, t.wMonth, t.wDay); }

void LogFailure(const char* what, DWORD basket) {
  char line[160];
  std::snprintf(line, sizeof line, "GetOldestBasketInfoAndBasketControl:%s", what);
  char text[200];
  std::snprintf(text, sizeof text, line, static_cast<int>(basket),
                static_cast<int>(platform::GetLastError()));
  FsStatusLog(text);
}

// A write through a handle of ageing's own; a failure is logged with the
// file and the offset, and ends the road it was on.
bool WriteDirect(platform::File& file, const char* path, DWORD offset, const void* data,
                 DWORD count) {
  DWORD done = 0;
  if (file.WriteAt(offset, data, count, &done) && done == count) return true;
  molra::LogIoFailure("write", path, offset, platform::GetLastError());
  return false;
}

bool CloseDirect(platform::File& file, const char* path) {
  if (file.Close()) return true;
  molra::LogIoFailure("close", path, 0, platform::GetLastError());
  return false;
}

// The index of the oldest basket, opened beside whoever records or plays
// back there, with the node-level access the cut needs.
class AgeingIndex : public CFsIndex {
 public:
  using CFsIndex::ReadHeader;
  using CFsIndex::ReadNode;

  int ReloadHeader() { return ReadHeader(&m_Hdr); }

  // The chain now begins at `offset`: First starts there and Prev stops.
  bool CutFront(DWORD offset, DWORD count, _tagIDXNODE* node) {
    // The node first: a header that names it as the start must never
    // meet it still linked to the days cut away.
    node->dwParent = 0;
    node->dwLeft = 0;
    if (!WriteNode(node, offset)) return false;
    _tagIDXHDR cut = m_Hdr;
    cut.dwRoot = offset;
    cut.dwFirst = offset;
    cut.dwCount = count;
    if (!WriteHeader(&cut)) return false;
    m_Hdr = cut;
    m_bWrote = true;  // the close keeps the repaired header
    return true;
  }
};

WORD Digits(const char* text, int count) {
  char field[8] = {};
  std::memcpy(field, text, static_cast<size_t>(count));
  return static_cast<WORD>(std::atoi(field));
}

}  // namespace

int CMOLRA::GetOldestBasketInfoAndBasketControl(unsigned int days, _tagFSBSKINFO* info) {
  _tagFSBSKINFO scratch;
  if (info == nullptr) info = &scratch;
  const DWORD b = m_FsHdr.dwOldest;
  // Without a catalogue there is no oldest basket to age.
  if (GetBaksetInfo(static_cast<LONG>(b), info) != FS_OK) return 0;

  const CTime cut = CTime::GetCurrentTime() - CTimeSpan(static_cast<std::int64_t>(days) * 86400);
  // A retention that reaches back before year 1 keeps everything: no
  // four-digit date can name the cut-off, and a 16-bit year would wrap.
  if (cut.GetTime() < kFirstCutOff) return 0;
  std::tm local;
  cut.GetLocalTm(&local);
  const std::string cutOff = DateText(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
  const SYSTEMTIME startStamp = info->stFirst;
  const SYSTEMTIME endStamp = info->stLast;
  if (cutOff >= DateText(endStamp)) return EraseOldest(b, info);
  if (cutOff < DateText(startStamp)) return 0;
  return CutOldest(b, cutOff, info);
}

int CMOLRA::EraseOldest(DWORD b, _tagFSBSKINFO* info) {
  _tagFSBSKINFO* record = Basket(b);
  if (record == nullptr) return 0;
  platform::Env* env = platform::CurrentEnv();
  // Sharing with writers only: a basket that anyone has open for reading,
  // the recorder's and the players' own included, stays as it is.
  const auto openDirect = [&](const char* ext) {
    return env->OpenFile(molra::BasketFile(record->szPath, ext), platform::Access::kWrite,
                         platform::kShareWrite, platform::Disposition::kOpenAlways);
  };
  std::unique_ptr<platform::File> index = openDirect(molra::kIndexExt);
  if (!index) {
    LogFailure("Basket Erase -%d Error Code:%d", b);
    return 1;
  }
  const _tagIDXHDR empty = molra::EmptyIndexHeader();
  // A write that fails leaves the catalogue as it was: the next call
  // erases the basket again.
  const molra::BasketFile indexPath(record->szPath, molra::kIndexExt);
  const bool emptied = WriteDirect(*index, indexPath, 0, &empty, sizeof empty);
  if (!CloseDirect(*index, indexPath) || !emptied) return 1;

  std::unique_ptr<platform::File> table = openDirect(molra::kTableExt);
  if (!table) {
    LogFailure("Basket Erase -%d Error Code:%d", b);
    return 1;
  }
  const molra::BasketFile tablePath(record->szPath, molra::kTableExt);
  std::unique_ptr<_tagFSBSKTBL> zero(new (std::nothrow) _tagFSBSKTBL());
  bool zeroed = zero != nullptr;
  if (!zeroed) {
    platform::SetLastError(platform::kErrorNotEnoughMemory);
    LogFailure("Basket Erase -%d Error Code:%d", b);
  }
  for (DWORD k = 0; zeroed && k < molra::kTableInitDays; ++k) {
    zeroed = WriteDirect(*table, tablePath, k * kRecordSize, zero.get(), kRecordSize);
  }
  if (!CloseDirect(*table, tablePath) || !zeroed) return 1;

  std::memset(&record->stFirst, 0, sizeof record->stFirst);
  std::memset(&record->stLast, 0, sizeof record->stLast);
  record->dwDays = 0;
  record->dwChunks = 0;
  record->dwFlags = 0;
  if (m_FsHdr.dwBaskets > 0) m_FsHdr.dwOldest = (m_FsHdr.dwOldest + 1) % m_FsHdr.dwBaskets;
  // The emptied record before the head that moves dwOldest on: a power cut
  // between the two leaves a basket that the next call erases again.
  SaveCatalogue(static_cast<LONG>(b), true);
  GetBaksetInfo(static_cast<LONG>(m_FsHdr.dwOldest), info);
  return 1;
}

int CMOLRA::CutOldest(DWORD b, const std::string& cutOff, _tagFSBSKINFO* info) {
  _tagFSBSKINFO* record = Basket(b);
  if (record == nullptr) return 0;
  // The table first: the days up to the cut-off go, the rest move to the
  // front in their order, and zero records fill the tail.
  std::unique_ptr<platform::File> table = platform::CurrentEnv()->OpenFile(
      molra::BasketFile(record->szPath, molra::kTableExt), platform::Access::kReadWrite,
      platform::kShareReadWrite, platform::Disposition::kOpenAlways);
  if (!table) {
    LogFailure("Basket Update -%dTBL Error Code:%d", b);
    return 1;
  }
  const DWORD days = info->dwDays;
  // A count beyond the records the file holds (damage) would fail at the
  // first missing one: it fails before any room is asked for them.
  const DWORD held = table->Size() / kRecordSize;
  if (days > held) {
    LogFailure("Basket Update -%dTBL Error Code:%d", b);
    return 1;
  }
  std::unique_ptr<BYTE[]> kept(new (std::nothrow) BYTE[static_cast<size_t>(days) * kRecordSize]);
  std::unique_ptr<_tagFSBSKTBL> one(new (std::nothrow) _tagFSBSKTBL());
  if (!kept || !one) {
    // Nothing is written without room for every day that stays.
    platform::SetLastError(platform::kErrorNotEnoughMemory);
    LogFailure("Basket Update -%dTBL Error Code:%d", b);
    return 1;
  }
  DWORD keep = 0;
  for (DWORD k = 0; k < days; ++k) {
    DWORD done = 0;
    if (!table->ReadAt(k * kRecordSize, one.get(), kRecordSize, &done) || done != kRecordSize) {
      LogFailure("Basket Update -%dTBL Error Code:%d", b);
      return 1;
    }
    const std::string day = DateText(static_cast<int>(one->dwYear), static_cast<int>(one->dwMonth),
                                     static_cast<int>(one->dwDay));
    if (cutOff < day) std::memcpy(kept.get() + static_cast<size_t>(keep++) * kRecordSize, one.get(), kRecordSize);
  }
  // Kept days and the zeros behind them in one write: a power cut leaves
  // the table either as it was or compacted, never half of each.
  std::memset(kept.get() + static_cast<size_t>(keep) * kRecordSize, 0,
              static_cast<size_t>(days - keep) * kRecordSize);
  const molra::BasketFile tablePath(record->szPath, molra::kTableExt);
  const bool compacted = WriteDirect(*table, tablePath, 0, kept.get(), days * kRecordSize);
  // A table that did not take the cut keeps its days, and the catalogue
  // keeps counting them: the next call cuts again.
  if (!CloseDirect(*table, tablePath) || !compacted) return 1;
  kept.reset();
  info->dwDays = keep;

  // Then the index: the chain's front up to the cut-off is skipped.
  AgeingIndex index;
  if (!index.Open(molra::BasketFile(record->szPath, molra::kIndexExt), CFsFile::kModeReadWrite, 0)) {
    LogFailure("Basket Update -%dIDX Error Code:%d", b);
    return 1;
  }
  // A header the open rebuilt from the nodes stands for a damaged one on
  // disk: reading the disk's again would work from the damage.
  if (!index.Rebuilt() && !index.ReloadHeader()) {
    LogFailure("Basket Update -%dIDX Error Code:%d", b);
    index.Close();
    return 1;
  }
  int year = 0, month = 0, day = 0;
  std::sscanf(cutOff.c_str(), "%4d%2d%2d", &year, &month, &day);
  const molra::KeyText cutKey = molra::LastKeyOfDay(year, month, day);
  DWORD count = index.Header().dwCount;
  _tagIDXNODE node;
  bool haveNode = index.ReadNode(&node, index.Header().dwFirst) != 0;
  if (haveNode && CFsIndex::CompareKey(node.cKey, cutKey.text, 8) <= 0) {
    DWORD offset = index.Header().dwFirst;
    for (DWORD steps = 0;; ++steps) {
      // A walk longer than an index has room for goes round a loop that
      // damage made: the basket stays as it is.
      if (steps > molra::kRoomNodes) {
        platform::SetLastError(platform::kErrorReadFault);
        LogFailure("Basket Update -%dIDX Error Code:%d", b);
        index.Close();
        return 1;
      }
      --count;
      DWORD found = 0;
      const _tagIDXNODE examined = node;
      if (!index.NextNode(&node, offset, &found)) {
        node = examined;  // the walk's end: the last node it reached counts
        break;
      }
      offset = found;
      if (CFsIndex::CompareKey(node.cKey, cutKey.text, 8) > 0) {
        if (!index.CutFront(found, count, &node)) {
          // The catalogue keeps the basket as it was: the next call cuts again.
          index.Close();
          return 1;
        }
        break;
      }
    }
  }

  record->dwDays = keep;
  record->dwChunks = count;
  if (haveNode) {
    // The basket now starts with the last node looked at.
    record->stFirst.wYear = Digits(node.cKey, 4);
    record->stFirst.wMonth = Digits(node.cKey + 4, 2);
    record->stFirst.wDay = Digits(node.cKey + 6, 2);
    record->stFirst.wHour = Digits(node.cKey + 8, 2);
    record->stFirst.wMinute = Digits(node.cKey + 10, 2);
    record->stFirst.wSecond = Digits(node.cKey + 12, 2);
    record->stFirst.wMilliseconds = Digits(node.cKey + 14, 4);
  }
  SaveFSInfo(static_cast<LONG>(b));
  GetBaksetInfo(static_cast<LONG>(m_FsHdr.dwOldest), info);
  index.Close();
  return 1;
}
