// Checking one basket. Beside a running recorder the files are read in
// the order in which a save writes them (index, data head, catalogue
// record, day table), so that each later read holds at least what the
// earlier ones name; the one save that may be under way is allowed for,
// and a basket whose files moved while they were read, and that showed a
// fault, is read again.
#include "verify/basket_verifier.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <utility>

#include "index/fs_index.h"
#include "platform/clock.h"
#include "store/catalogue_file.h"
#include "store/store_files.h"
#include "verify/verify_support.h"

using molra::detail::CFsIndex;

namespace molra {
namespace verify {
namespace {

constexpr DWORD kTopBit = 0x80000000u;
constexpr WORD kVersion = 0x0100;
constexpr DWORD kDataHead = sizeof(_tagDATAHDR);
constexpr DWORD kChunkHead = sizeof(_tagCHUNKHDR);
constexpr DWORD kDayRecord = sizeof(_tagFSBSKTBL);
constexpr DWORD kHourCells = offsetof(_tagFSBSKTBL, dwHour);
constexpr DWORD kMinuteCells = offsetof(_tagFSBSKTBL, dwMinute);
constexpr int kAttempts = 6;
// A save takes well under this; a recorder's basket that shows no change
// over it has no save under way.
constexpr DWORD kRestMs = 50;
// Chunk headers are read in blocks of up to kBlock bytes, as long as no
// more than kGap of payload lies between two of them.
constexpr DWORD kBlock = 1024 * 1024;
constexpr DWORD kGap = 64 * 1024;

std::string StampKey(const SYSTEMTIME& t) {
  return std::string(
      MakeKey(t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds, 0).text,
      kStampChars);
}
std::string NodeStamp(const _tagIDXNODE& node) { return std::string(node.cKey, kStampChars); }

int Digits(const char* text, int count) {
  int value = 0;
  for (int i = 0; i < count; ++i) value = value * 10 + (text[i] - '0');
  return value;
}

// The stamp of a key, as text.
std::string KeyStamp(const std::string& key) {
  const char* k = key.c_str();
  SYSTEMTIME t{};
  t.wYear = static_cast<WORD>(Digits(k, 4));
  t.wMonth = static_cast<WORD>(Digits(k + 4, 2));
  t.wDay = static_cast<WORD>(Digits(k + 6, 2));
  t.wHour = static_cast<WORD>(Digits(k + 8, 2));
  t.wMinute = static_cast<WORD>(Digits(k + 10, 2));
  t.wSecond = static_cast<WORD>(Digits(k + 12, 2));
  t.wMilliseconds = static_cast<WORD>(Digits(k + 14, 4));
  return StampText(t);
}

bool IsZero(const SYSTEMTIME& t) {
  static const SYSTEMTIME zero{};
  return std::memcmp(&t, &zero, sizeof t) == 0;
}

DWORD WordAt(const std::vector<BYTE>& bytes, DWORD offset) {
  DWORD word = 0;
  if (offset <= bytes.size() && bytes.size() - offset >= sizeof word) {
    std::memcpy(&word, bytes.data() + offset, sizeof word);
  }
  return word;
}

// The ring as the catalogue's head names it, positions past the list
// read as a load reads them.
struct Ring {
  DWORD baskets = 0, current = 0, oldest = 0;
  bool operator==(const Ring& o) const {
    return baskets == o.baskets && current == o.current && oldest == o.oldest;
  }
  bool Current(DWORD n) const { return baskets != 0 && current == n; }
  bool Next(DWORD n) const { return baskets != 0 && (current + 1) % baskets == n; }
  bool Oldest(DWORD n) const {
    return baskets != 0 && (oldest < baskets ? oldest : (current + 1) % baskets) == n;
  }
};

// The catalogue's head now, and record `n` if asked for.
bool ReadCatalogue(DWORD n, Ring* ring, _tagFSBSKINFO* record) {
  ReadOnlyFile file;
  _tagFSHDR head;
  if (!file.Open(kCatalogPath) || !file.Read(0, &head, sizeof head)) return false;
  const DWORD size = file.Size();
  const DWORD held = size < CatalogueFile::kHeadSize
                         ? 0
                         : (size - CatalogueFile::kHeadSize) / CatalogueFile::kRecordSize;
  const DWORD baskets = head.dwBaskets;
  ring->baskets = std::min(baskets, held);
  ring->current = head.dwCurrent;
  ring->oldest = head.dwOldest;
  return record == nullptr || file.Read(CatalogueFile::RecordOffset(n), record, sizeof *record);
}

// An index over bytes read earlier, so that the recorder's own check of a
// tree judges them; it has nothing it could write to.
class SnapshotIndex : public CFsIndex {
 public:
  SnapshotIndex(const std::vector<BYTE>& bytes, const _tagIDXHDR& header) {
    m_hFile = std::make_unique<SnapshotFile>(bytes);
    m_Hdr = header;
  }
  // Released here, so that the base's close has no file to mark.
  ~SnapshotIndex() override { m_hFile.reset(); }
};

class BasketCheck {
 public:
  // With `rest`, the index header of an earlier reading in which nothing
  // moved: the recorder's basket is then judged as at rest, as a basket
  // that a power cut left is.
  BasketCheck(DWORD number, const _tagFSBSKINFO& listed, const _tagIDXHDR* rest,
              const SYSTEMTIME* restFirst)
      : m_n(number), m_listed(listed), m_record(listed), m_rest(rest), m_restFirst(restFirst) {
    m_listed.szPath[sizeof m_listed.szPath - 1] = '\0';
    m_cin = BasketFile(m_listed.szPath, kIndexExt);
    m_cdt = BasketFile(m_listed.szPath, kDataExt);
    m_cta = BasketFile(m_listed.szPath, kTableExt);
  }

  // One reading of the basket; false when its files moved meanwhile.
  bool Run(Report* report);
  bool Live() const { return m_live; }
  const _tagIDXHDR& Header() const { return m_header; }
  SYSTEMTIME First() const { return m_record.stFirst; }

 private:
  bool Opened(ReadOnlyFile* file, const std::string& path);
  void ReadIndex();
  void CheckSizes();
  void CheckDataHead();
  void CheckIndex();
  void ReportRepair();
  void NoteRollover();
  void CheckKeyOrder();
  void CheckChunks();
  void CheckTable();
  void CheckRecord();
  void CheckPresence(bool lag);
  void CheckDaysHaveChunks();
  DWORD RecordField(size_t field) const {
    return CatalogueFile::RecordOffset(m_n) + static_cast<DWORD>(field);
  }
  // The first day record in use with that date; m_days when none.
  DWORD DayRecord(DWORD year, DWORD month, DWORD day) const;

  DWORD m_n;
  _tagFSBSKINFO m_listed;  // as the catalogue was first read
  _tagFSBSKINFO m_record;  // read again after the index and the data head
  const _tagIDXHDR* m_rest;
  const SYSTEMTIME* m_restFirst;  // the basket's start when it was at rest
  std::string m_cin, m_cdt, m_cta;
  const std::string m_cft = kCatalogPath;
  Report* m_report = nullptr;
  Ring m_before, m_after;
  bool m_live = false, m_next = false, m_oldest = false;
  bool m_moving = false;   // the recorder's basket, a save may be under way
  bool m_rolling = false;  // a rollover into it stopped before the catalogue

  ReadOnlyFile m_index;
  DWORD m_indexSize = 0;
  bool m_haveHeader = false;
  _tagIDXHDR m_header{};
  std::vector<BYTE> m_indexBytes;  // from offset 0, with m_header in front
  bool m_treeKnown = false;        // a header the nodes can be judged by
  IndexRepair m_repair;
  std::vector<_tagIDXNODE> m_nodes;  // the tree's nodes in order of arrival
  DWORD m_front = 0;                 // where an aged basket now begins

  ReadOnlyFile m_data;
  DWORD m_dataSize = 0;
  bool m_haveHead = false;
  _tagDATAHDR m_head{};
  std::vector<char> m_agrees;  // per node: its chunk is the one it names

  ReadOnlyFile m_table;
  DWORD m_tableSize = 0;
  std::vector<BYTE> m_tableBytes;
  DWORD m_days = 0;          // day records in use that the table holds whole
  bool m_blankDays = false;  // zeroed records among them: the cells were blanked
  bool m_skipCells = false;  // the record speaks of another cycle or none
};

bool BasketCheck::Opened(ReadOnlyFile* file, const std::string& path) {
  if (file->Open(path.c_str())) return true;
  const DWORD error = file->Error();
  const bool missing =
      error == platform::kErrorFileNotFound || error == platform::kErrorPathNotFound;
  m_report->Add(path, 0,
                missing ? "missing" : Say("cannot be opened for reading (error %u)", error));
  return false;
}

bool BasketCheck::Run(Report* report) {
  m_report = report;
  // The record before as well: a cycle that came and went while the files
  // were read can leave heads that look the same, but not the same start.
  _tagFSBSKINFO recordBefore{};
  if (!ReadCatalogue(m_n, &m_before, &recordBefore)) recordBefore = m_listed;
  Opened(&m_index, m_cin);
  Opened(&m_data, m_cdt);
  Opened(&m_table, m_cta);
  ReadIndex();
  if (m_data.IsOpen()) {
    m_dataSize = m_data.Size();
    m_haveHead = m_data.Read(0, &m_head, sizeof m_head);
  }
  if (!ReadCatalogue(m_n, &m_after, &m_record)) m_record = m_listed;
  if (m_table.IsOpen()) {
    m_tableSize = m_table.Size();
    const DWORD days = m_record.dwDays;
    m_days = std::min(days, m_tableSize / kDayRecord);
    m_tableBytes = m_table.ReadBlock(0, m_days * kDayRecord);
    m_days = static_cast<DWORD>(m_tableBytes.size() / kDayRecord);
  }
  m_live = m_before.Current(m_n) || m_after.Current(m_n);
  m_next = m_before.Next(m_n) || m_after.Next(m_n);
  m_oldest = m_before.Oldest(m_n) || m_after.Oldest(m_n);
  m_moving = m_live && m_rest == nullptr;

  CheckSizes();
  CheckDataHead();
  CheckIndex();
  CheckChunks();
  CheckTable();
  CheckRecord();

  _tagIDXHDR again{};
  const bool indexStill = !m_haveHeader || (m_index.Read(0, &again, sizeof again) &&
                                            std::memcmp(&again, &m_header, sizeof again) == 0);
  const SYSTEMTIME firstBefore = recordBefore.stFirst, firstAfter = m_record.stFirst;
  const bool rested =
      m_rest == nullptr || (std::memcmp(m_rest, &m_header, sizeof m_header) == 0 &&
                            std::memcmp(m_restFirst, &firstAfter, sizeof firstAfter) == 0);
  return indexStill && rested && m_before == m_after &&
         std::memcmp(&firstBefore, &firstAfter, sizeof firstBefore) == 0 &&
         std::strncmp(m_record.szPath, m_listed.szPath, sizeof m_record.szPath - 1) == 0;
}

void BasketCheck::ReadIndex() {
  if (!m_index.IsOpen()) return;
  m_indexSize = m_index.Size();
  m_haveHeader = m_indexSize >= sizeof m_header && m_index.Read(0, &m_header, sizeof m_header);
  if (!m_haveHeader) return;
  const _tagIDXHDR h = m_header;
  const bool valid = IsIndexHeader(h);
  // The nodes the header names, read after it; a foreign header has the
  // whole room read, so that the tree behind it can be told.
  std::uint64_t want = NodeAt(kRoomNodes);
  if (valid) {
    want = h.dwEnd == 0 || !OnNodeBoundary(h.dwEnd) ? 0 : std::uint64_t{h.dwEnd} + kNodeSize;
  }
  want = std::min<std::uint64_t>(want, m_indexSize);
  m_indexBytes = m_index.ReadBlock(0, static_cast<DWORD>(want));
  m_indexBytes.resize(std::max<size_t>(m_indexBytes.size(), sizeof h));
  std::memcpy(m_indexBytes.data(), &h, sizeof h);
}

void BasketCheck::CheckSizes() {
  if (m_data.IsOpen() && m_dataSize != kDataFileSize) {
    m_report->Add(m_cdt, std::min(m_dataSize, kDataFileSize),
                  Say("%u bytes; a data file is made at %u", m_dataSize, kDataFileSize));
  }
  if (m_index.IsOpen() && m_indexSize < sizeof(_tagIDXHDR)) {
    m_report->Add(m_cin, m_indexSize,
                  Say("%u bytes, shorter than the %u-byte index header", m_indexSize,
                      static_cast<DWORD>(sizeof(_tagIDXHDR))));
  }
  if (m_table.IsOpen() && m_tableSize < kTableFileSize) {
    m_report->Add(m_cta, m_tableSize,
                  Say("%u bytes, shorter than the %u of the four day records a table is made with",
                      m_tableSize, kTableFileSize));
  }
}

void BasketCheck::CheckDataHead() {
  if (!m_data.IsOpen()) return;
  if (!m_haveHead) {
    m_report->Add(m_cdt, 0, "the 16-byte data head cannot be read");
    return;
  }
  const WORD version = m_head.wVersion;
  if (version != kVersion) {
    m_report->Add(m_cdt, 0, Say("data head version 0x%04X, not 0x%04X", version, kVersion));
  }
  if (std::memcmp(m_head.szMagic, "MOLRA", sizeof m_head.szMagic) != 0) {
    m_report->Add(m_cdt, offsetof(_tagDATAHDR, szMagic),
                  Say("data head magic %02X %02X %02X %02X %02X, not \"MOLRA\"",
                      static_cast<BYTE>(m_head.szMagic[0]), static_cast<BYTE>(m_head.szMagic[1]),
                      static_cast<BYTE>(m_head.szMagic[2]), static_cast<BYTE>(m_head.szMagic[3]),
                      static_cast<BYTE>(m_head.szMagic[4])));
  }
  const DWORD writePos = m_head.dwWritePos;
  if (writePos < kDataHead || writePos > m_dataSize) {
    m_report->Add(m_cdt, offsetof(_tagDATAHDR, dwWritePos),
                  Say("write position %u lies outside the file's room for chunks (%u to %u)",
                      writePos, kDataHead, m_dataSize));
  }
}

void BasketCheck::CheckIndex() {
  if (!m_haveHeader) return;
  const _tagIDXHDR h = m_header;
  if (!IsIndexHeader(h)) {
    IndexRepair rebuilt;
    if (!SnapshotIndex(m_indexBytes, h).Check(nullptr, 0, nullptr, &rebuilt)) rebuilt.kept = 0;
    // The zero head of an index as made: its first open writes a header.
    const DWORD chunks = m_record.dwChunks;
    if (rebuilt.kept == 0 && chunks == 0) return;
    m_report->Add(m_cin, 0,
                  Say("not an index header (magic %02X %02X, version %u) in front of a tree of %u "
                      "nodes, in a basket the catalogue counts %u chunks in",
                      static_cast<BYTE>(h.cMagic[0]), static_cast<BYTE>(h.cMagic[1]), h.wVersion,
                      rebuilt.kept, chunks));
    return;
  }
  if (h.dwEnd == 0) {
    // An empty tree, fresh or erased: no field names a node.
    const std::pair<const char*, DWORD> fields[] = {
        {"dwRoot", h.dwRoot}, {"dwFirst", h.dwFirst}, {"dwLast", h.dwLast}, {"dwCount", h.dwCount}};
    const DWORD offsets[] = {offsetof(_tagIDXHDR, dwRoot), offsetof(_tagIDXHDR, dwFirst),
                             offsetof(_tagIDXHDR, dwLast), offsetof(_tagIDXHDR, dwCount)};
    for (size_t i = 0; i < 4; ++i) {
      if (fields[i].second != 0) {
        m_report->Add(
            m_cin, offsets[i],
            Say("%s is %u in an empty tree (dwEnd 0)", fields[i].first, fields[i].second));
      }
    }
    m_treeKnown = true;
    NoteRollover();
    return;
  }
  if (!OnNodeBoundary(h.dwEnd)) {
    m_report->Add(m_cin, offsetof(_tagIDXHDR, dwEnd),
                  Say("dwEnd %u is not on a node boundary (28 + 41k)", h.dwEnd));
    return;
  }
  const DWORD limit = std::min(NodeSlot(h.dwEnd) + 1,
                               static_cast<DWORD>((m_indexBytes.size() - kRootOffset) / kNodeSize));
  if (m_moving) {
    // Links set by saves that came after the header was read lead past
    // the nodes it names; the one to the node right behind them the check
    // allows for in any basket, since a save cut short leaves it.
    const std::uint64_t beyond = std::uint64_t{h.dwEnd} + kNodeSize;
    for (DWORD k = 0; k < limit; ++k) {
      for (const size_t field : {offsetof(_tagIDXNODE, dwLeft), offsetof(_tagIDXNODE, dwRight)}) {
        BYTE* link = m_indexBytes.data() + NodeAt(k) + field;
        DWORD to = 0;
        std::memcpy(&to, link, sizeof to);
        if (to > beyond) std::memset(link, 0, sizeof to);
      }
    }
  }
  if (!SnapshotIndex(m_indexBytes, h).Check(nullptr, 0, nullptr, &m_repair)) return;
  m_nodes.resize(m_repair.kept);
  if (!m_nodes.empty()) {
    std::memcpy(m_nodes.data(), m_indexBytes.data() + kRootOffset, m_nodes.size() * kNodeSize);
  }
  // Ageing moved the front: the basket's span begins at the root it names.
  if (h.dwRoot != kRootOffset && OnNodeBoundary(h.dwRoot) && NodeSlot(h.dwRoot) < m_nodes.size() &&
      m_nodes[NodeSlot(h.dwRoot)].dwParent == 0) {
    m_front = NodeSlot(h.dwRoot);
  }
  ReportRepair();
  CheckKeyOrder();
  m_treeKnown = true;
  NoteRollover();
}

// A rollover into this basket reset its index after its last close
// (dwOpen 1), but the catalogue still holds the record of its last cycle:
// the power went before the save's catalogue write. Recording went on in
// the basket before, and its next rollover resets this one again.
void BasketCheck::NoteRollover() {
  const SYSTEMTIME latest = m_record.stLast;
  m_rolling = m_next && m_header.dwOpen == 1 &&
              (m_nodes.empty() || NodeStamp(m_nodes[0]) > StampKey(latest));
}

// What the recorder's open would set right, as faults.
void BasketCheck::ReportRepair() {
  const IndexRepair& r = m_repair;
  if (r.lost != 0) {
    m_report->Add(m_cin, r.lostFrom,
                  Say("%u of the nodes the header names are not in the tree from here on: torn, "
                      "unlinked or past the end of the %u-byte file",
                      r.lost, m_indexSize));
  }
  if (r.relinked != 0) {
    m_report->Add(m_cin, r.relinkedAt,
                  Say("lost link: a later node names this one as its parent, but this one leads "
                      "to it on neither side (links lost in the tree: %u)",
                      r.relinked));
  }
  if (r.cleared != 0) {
    m_report->Add(m_cin, r.clearedAt,
                  Say("a link here leads out of the tree, to no node that names this one as its "
                      "parent (links of this kind in the tree: %u)",
                      r.cleared));
  }
  if (r.lost != 0 || !r.headerChanged) return;
  // The header against the one its nodes call for, field by field.
  const _tagIDXHDR have = m_header;
  const _tagIDXHDR want = r.header;
  const struct {
    const char* name;
    DWORD have, want;
    size_t offset;
  } fields[] = {
      {"dwRoot", have.dwRoot, want.dwRoot, offsetof(_tagIDXHDR, dwRoot)},
      {"dwEnd", have.dwEnd, want.dwEnd, offsetof(_tagIDXHDR, dwEnd)},
      {"dwFirst", have.dwFirst, want.dwFirst, offsetof(_tagIDXHDR, dwFirst)},
      {"dwLast", have.dwLast, want.dwLast, offsetof(_tagIDXHDR, dwLast)},
      {"dwCount", have.dwCount, want.dwCount, offsetof(_tagIDXHDR, dwCount)},
  };
  for (const auto& f : fields) {
    if (f.have != f.want) {
      m_report->Add(m_cin, static_cast<DWORD>(f.offset),
                    Say("%s is %u, but the tree's nodes call for %u", f.name, f.have, f.want));
    }
  }
}

// A left child went down a descent because its key is smaller; a right
// child because its key is greater, or unseen with the top bit of dwInfo.
void BasketCheck::CheckKeyOrder() {
  const DWORD kept = static_cast<DWORD>(m_nodes.size());
  for (DWORD k = 0; k < kept; ++k) {
    const _tagIDXNODE& parent = m_nodes[k];
    for (const bool left : {true, false}) {
      const DWORD link = left ? parent.dwLeft : parent.dwRight;
      if (link <= NodeAt(k) || !OnNodeBoundary(link) || NodeSlot(link) >= kept) continue;
      const _tagIDXNODE& child = m_nodes[NodeSlot(link)];
      const int order = CFsIndex::CompareKey(child.cKey, parent.cKey, -1);
      const DWORD info = child.Ref.dwInfo;
      if (left ? order < 0 : order > 0 || (info & kTopBit) != 0) continue;
      m_report->Add(
          m_cin, link,
          Say("this node (key %.20s) hangs to the %s of the node at %u (key %.20s) "
              "without sorting %s it%s",
              child.cKey, left ? "left" : "right", NodeAt(k), parent.cKey,
              left ? "before" : "after",
              left ? "" : ", and lacks the top bit of dwInfo that appends unseen"),
          "nodes out of key order");
    }
  }
}

void BasketCheck::CheckChunks() {
  const DWORD kept = static_cast<DWORD>(m_nodes.size());
  m_agrees.assign(kept, 0);
  if (!m_treeKnown || kept == 0 || !m_data.IsOpen()) return;
  std::vector<std::pair<DWORD, DWORD>> order;  // chunk offset, node slot
  order.reserve(kept);
  for (DWORD k = 0; k < kept; ++k) {
    const DWORD offset = m_nodes[k].Ref.dwOffset;
    order.emplace_back(offset, k);
  }
  std::sort(order.begin(), order.end());

  const DWORD last = m_dataSize < kChunkHead ? 0 : m_dataSize - kChunkHead;
  std::uint64_t prevEnd = 0;
  DWORD prevOffset = 0, prevSlot = 0;
  DWORD furthest = 0, furthestSlot = 0;  // the end of the chunk that reaches furthest
  for (size_t i = 0; i < order.size();) {
    const DWORD start = order[i].first;
    if (start < kDataHead || start > last || m_dataSize < kChunkHead) {
      m_report->Add(m_cin, NodeAt(order[i].second),
                    Say("this node names a chunk at %u, outside the %u-byte data file %s", start,
                        m_dataSize, m_cdt.c_str()),
                    "nodes naming chunks outside the data file");
      ++i;
      continue;
    }
    // One read for the headers that lie close together.
    size_t j = i + 1;
    DWORD end = start + kChunkHead;
    for (; j < order.size(); ++j) {
      const DWORD at = order[j].first;
      if (at > last || at + kChunkHead - start > kBlock || (at > end && at - end > kGap)) break;
      end = std::max(end, at + kChunkHead);
    }
    const std::vector<BYTE> block = m_data.ReadBlock(start, end - start);
    for (; i < j; ++i) {
      const DWORD offset = order[i].first;
      const DWORD slot = order[i].second;
      const _tagIDXNODE& node = m_nodes[slot];
      if (block.size() < offset - start + kChunkHead) {
        m_report->Add(m_cdt, offset, "the chunk header here cannot be read");
        continue;
      }
      _tagCHUNKHDR chunk;
      std::memcpy(&chunk, block.data() + (offset - start), sizeof chunk);
      const SYSTEMTIME stamp = chunk.stTime;
      const int channel = chunk.chChannel;
      const int nodeChannel = node.Ref.cChannel;
      const DWORD info = chunk.dwInfo;
      const DWORD nodeInfo = node.Ref.dwInfo;
      const DWORD length = chunk.dwLength;
      if (channel != nodeChannel || info != nodeInfo || StampKey(stamp) != NodeStamp(node)) {
        m_report->Add(m_cdt, offset,
                      Say("the chunk header here (channel %d, %s, dwInfo 0x%08X) is not the one "
                          "that the node at %u of %s names (channel %d, key %.20s, dwInfo 0x%08X)",
                          channel, StampText(stamp).c_str(), info, NodeAt(slot), m_cin.c_str(),
                          nodeChannel, node.cKey, nodeInfo),
                      "chunk headers that disagree with their nodes");
        continue;
      }
      const std::uint64_t stop = std::uint64_t{offset} + kChunkHead + length;
      if (length > kMaxChunkLength || stop > m_dataSize) {
        m_report->Add(m_cdt, offset + static_cast<DWORD>(offsetof(_tagCHUNKHDR, dwLength)),
                      Say("chunk length %u: longer than the %u a read accepts, or past the end of "
                          "the file",
                          length, kMaxChunkLength),
                      "chunks too long");
        continue;
      }
      m_agrees[slot] = 1;
      if (offset < prevEnd) {
        m_report->Add(m_cdt, offset,
                      Say("the chunk here (of the node at %u) begins inside the chunk at %u (of "
                          "the node at %u)",
                          NodeAt(slot), prevOffset, NodeAt(prevSlot)),
                      "chunks that overlap");
      }
      prevEnd = stop;
      prevOffset = offset;
      prevSlot = slot;
      // The save that wrote the last node may not have moved the write
      // position yet: it then stands at that node's chunk.
      const bool pending = m_moving || m_rolling;
      if (pending && NodeAt(slot) == m_header.dwEnd && m_head.dwWritePos == offset) continue;
      if (stop > furthest) {
        furthest = static_cast<DWORD>(stop);
        furthestSlot = slot;
      }
    }
  }
  const DWORD writePos = m_head.dwWritePos;
  if (m_haveHead && writePos >= kDataHead && writePos <= m_dataSize && furthest > writePos) {
    m_report->Add(m_cdt, offsetof(_tagDATAHDR, dwWritePos),
                  Say("write position %u lies before the end %u of the chunk at %u that the "
                      "node at %u names",
                      writePos, furthest, m_nodes[furthestSlot].Ref.dwOffset,
                      NodeAt(furthestSlot)));
  }
}

void BasketCheck::CheckTable() {
  if (!m_table.IsOpen()) return;
  const DWORD days = m_record.dwDays;
  const DWORD whole = m_tableSize / kDayRecord;
  if (days > whole) {
    m_report->Add(m_cft, RecordField(offsetof(_tagFSBSKINFO, dwDays)),
                  Say("basket %u: dwDays %u, but %s holds %u whole day records", m_n, days,
                      m_cta.c_str(), whole));
  }
  for (DWORD k = 0; k < m_days; ++k) {
    const DWORD year = WordAt(m_tableBytes, k * kDayRecord);
    const DWORD month = WordAt(m_tableBytes, k * kDayRecord + 4);
    const DWORD day = WordAt(m_tableBytes, k * kDayRecord + 8);
    if (year == 0 && month == 0 && day == 0) {
      // Blanking zeroes whole records; a record zeroed only in part is damage.
      const BYTE* record = m_tableBytes.data() + size_t{k} * kDayRecord;
      if (std::all_of(record, record + kDayRecord, [](BYTE b) { return b == 0; })) {
        m_blankDays = true;
      } else {
        m_report->Add(m_cta, k * kDayRecord,
                      Say("day record %u has no date, yet cells behind it are marked", k),
                      "day records without a valid date");
      }
    } else if (year == 0 || month < 1 || month > 12 || day < 1 || day > 31) {
      m_report->Add(m_cta, k * kDayRecord,
                    Say("day record %u has no valid date (%u-%u-%u)", k, year, month, day),
                    "day records without a valid date");
    }
  }
}

DWORD BasketCheck::DayRecord(DWORD year, DWORD month, DWORD day) const {
  for (DWORD k = 0; k < m_days; ++k) {
    if (WordAt(m_tableBytes, k * kDayRecord) == year &&
        WordAt(m_tableBytes, k * kDayRecord + 4) == month &&
        WordAt(m_tableBytes, k * kDayRecord + 8) == day) {
      return k;
    }
  }
  return m_days;
}

void BasketCheck::CheckRecord() {
  const _tagFSBSKINFO& rec = m_record;
  const SYSTEMTIME first = rec.stFirst;
  const SYSTEMTIME latest = rec.stLast;
  const DWORD chunks = rec.dwChunks;
  const DWORD days = rec.dwDays;
  const _tagIDXHDR h = m_header;
  const DWORD kept = static_cast<DWORD>(m_nodes.size());
  // A blanked, erased or never used basket names no span; its index may
  // still hold the chunks of the cycle that the blanking left.
  const bool blank = IsZero(first) && IsZero(latest) && chunks == 0 && days == 0;
  if (!m_treeKnown || blank || m_rolling) {
    m_skipCells = true;
    return;
  }
  const DWORD count = h.dwEnd == 0 ? 0 : m_repair.header.dwCount;
  const bool lag = chunks + 1 == count;  // a save cut before its catalogue write
  std::vector<std::string> keys;
  for (DWORD k = m_front; k < kept; ++k) keys.push_back(NodeStamp(m_nodes[k]));
  const std::string firstKey = StampKey(first);
  // Ageing that found no node past its cut-off in the oldest basket left
  // its days and chunks cut, and stFirst at the last node it looked at.
  const bool walkedOut = m_oldest && days == 0 && chunks < count &&
                         std::find(keys.begin(), keys.end(), firstKey) != keys.end();
  if (walkedOut) m_skipCells = true;
  if (m_repair.lost != 0) return;  // the index finding says it all
  if (chunks != count && !lag && !walkedOut && !(m_moving && chunks > count)) {
    m_report->Add(m_cft, RecordField(offsetof(_tagFSBSKINFO, dwChunks)),
                  Say("basket %u: dwChunks %u, but its index holds %u nodes", m_n, chunks, count));
  }
  if (!keys.empty()) {
    std::vector<std::string> sorted = keys;
    std::sort(sorted.begin(), sorted.end());
    const std::string& min = sorted.front();
    const std::string& min2 = sorted[std::min<size_t>(1, sorted.size() - 1)];
    const std::string& max = sorted.back();
    const std::string& max2 = sorted[sorted.size() - (sorted.size() > 1 ? 2 : 1)];
    const std::string lastKey = StampKey(latest);
    // Beside a recorder the record was read after the nodes, so it may
    // know of later saves; a save cut short may have left it one behind.
    const bool firstOk = firstKey == min || (lag && firstKey == min2) ||
                         (m_moving && firstKey <= min2) || (m_front != 0 && firstKey == keys[0]) ||
                         walkedOut;
    const bool lastOk = lastKey == max || (lag && lastKey == max2) || (m_moving && lastKey >= max2);
    if (!firstOk) {
      m_report->Add(m_cft, RecordField(offsetof(_tagFSBSKINFO, stFirst)),
                    Say("basket %u: stFirst %s, but the earliest chunk of its index is of %s", m_n,
                        StampText(first).c_str(), KeyStamp(min).c_str()));
    }
    if (!lastOk) {
      m_report->Add(m_cft, RecordField(offsetof(_tagFSBSKINFO, stLast)),
                    Say("basket %u: stLast %s, but the latest chunk of its index is of %s", m_n,
                        StampText(latest).c_str(), KeyStamp(max).c_str()));
    }
  }
  if (!m_skipCells && !m_blankDays && m_table.IsOpen()) {
    CheckPresence(lag);
    if (!m_moving && m_front == 0 && !lag) CheckDaysHaveChunks();
  }
}

// Each chunk's day has a record, and the hour and minute cells of its
// channel are marked with its event bits. Cells marked without a chunk
// are no fault: ageing and deletion leave them.
void BasketCheck::CheckPresence(bool lag) {
  struct Fault {
    DWORD slot, offset;
    std::string what;
    const char* kind;
  };
  std::vector<Fault> faults;
  std::set<DWORD> cells;  // each cell and each missing day once
  const std::string firstDay = StampKey(m_record.stFirst).substr(0, 8);
  const DWORD kept = static_cast<DWORD>(m_nodes.size());
  for (DWORD k = m_front; k < kept; ++k) {
    // The save that wrote the last node may be writing its cells now.
    if (!m_agrees[k] || (m_moving && NodeAt(k) == m_header.dwEnd)) continue;
    const _tagIDXNODE& node = m_nodes[k];
    const char* key = node.cKey;
    const DWORD year = static_cast<DWORD>(Digits(key, 4));
    const DWORD month = static_cast<DWORD>(Digits(key + 4, 2));
    const DWORD day = static_cast<DWORD>(Digits(key + 6, 2));
    const DWORD hour = static_cast<DWORD>(Digits(key + 8, 2));
    const DWORD minute = static_cast<DWORD>(Digits(key + 10, 2));
    const int channel = node.Ref.cChannel;
    const DWORD info = node.Ref.dwInfo;
    if (hour >= kHours || minute >= kMinutes) continue;
    const DWORD record = DayRecord(year, month, day);
    if (record == m_days) {
      // Ageing dropped the days before the one the basket now starts on.
      if (m_front != 0 && std::string(key, 8) < firstDay) continue;
      const DWORD dayKey = 0x80000000u | (year * 10000 + month * 100 + day);
      if (!cells.insert(dayKey).second) continue;
      faults.push_back({k, m_days * kDayRecord,
                        Say("no day record for %04u-%02u-%02u among the %u in use, though the "
                            "node at %u of %s names a chunk of that day",
                            year, month, day, m_days, NodeAt(k), m_cin.c_str()),
                        "chunks without a day record"});
      continue;
    }
    if (info == 0) continue;  // a chunk without info marks nothing
    const DWORD row = static_cast<DWORD>(channel) * kHours + hour;
    const struct {
      DWORD offset;
      const char* name;
    } marks[] = {{record * kDayRecord + kHourCells + row * 4, "hour"},
                 {record * kDayRecord + kMinuteCells + (row * kMinutes + minute) * 4, "minute"}};
    for (const auto& mark : marks) {
      const DWORD cell = WordAt(m_tableBytes, mark.offset);
      const DWORD events = info >> 24;
      std::string what;
      if (cell == 0) {
        what =
            Say("the %s cell of channel %d at %02u:%02u is 0, though the node at %u of %s "
                "names a chunk there (dwInfo 0x%08X)",
                mark.name, channel, hour, minute, NodeAt(k), m_cin.c_str(), info);
      } else if (events != 0 && ((cell >> 24) & events) == 0) {
        what =
            Say("the %s cell of channel %d at %02u:%02u holds 0x%08X, without any of the "
                "event bits 0x%02X of the chunk of the node at %u of %s",
                mark.name, channel, hour, minute, cell, events, NodeAt(k), m_cin.c_str());
      } else {
        continue;
      }
      if (!cells.insert(mark.offset).second) continue;
      faults.push_back({k, mark.offset, what, "unmarked cells"});
    }
  }
  // A save cut before its catalogue write may have left its own marks
  // behind the days in use, or written over by the next day's record.
  if (lag && !faults.empty() && std::all_of(faults.begin(), faults.end(), [&](const Fault& f) {
        return f.slot == faults[0].slot;
      })) {
    return;
  }
  for (Fault& f : faults) m_report->Add(m_cta, f.offset, std::move(f.what), f.kind);
}

// Each day in use is the day of a chunk: a day record is made by a save
// whose node is in the index.
void BasketCheck::CheckDaysHaveChunks() {
  std::set<std::string> dates;
  for (const _tagIDXNODE& node : m_nodes) dates.insert(std::string(node.cKey, 8));
  for (DWORD k = 0; k < m_days; ++k) {
    const DWORD year = WordAt(m_tableBytes, k * kDayRecord);
    const DWORD month = WordAt(m_tableBytes, k * kDayRecord + 4);
    const DWORD day = WordAt(m_tableBytes, k * kDayRecord + 8);
    if (year == 0 || year > 9999 || month < 1 || month > 12 || day < 1 || day > 31) continue;
    if (dates.count(Say("%04u%02u%02u", year, month, day)) != 0) continue;
    m_report->Add(m_cta, k * kDayRecord,
                  Say("day record %u is of %04u-%02u-%02u, a day of which the index holds no "
                      "chunk",
                      k, year, month, day),
                  "day records without a chunk");
  }
}

}  // namespace

void VerifyBasket(DWORD number, const _tagFSBSKINFO& listed, std::vector<Finding>* findings) {
  _tagIDXHDR rest{};
  SYSTEMTIME restFirst{};
  bool atRest = false;
  for (int attempt = 1;; ++attempt) {
    Report report;
    BasketCheck check(number, listed, atRest ? &rest : nullptr, atRest ? &restFirst : nullptr);
    const bool still = check.Run(&report);
    const bool last = attempt == kAttempts;
    if (!atRest && still && check.Live() && !last) {
      // The recorder's basket held still while it was read. If it still
      // does after a pause, no save is under way: it is judged as at rest.
      rest = check.Header();
      restFirst = check.First();
      atRest = true;
      platform::Sleep(kRestMs);
      continue;
    }
    // What was read while a save or a rollover moved the files is read
    // again; what holds still, or stays, is a fault. A basket that moved
    // under every reading was never seen whole: nothing can be said of it.
    if (report.Empty() || still) {
      for (Finding& f : report.Take()) findings->push_back(std::move(f));
      return;
    }
    if (last) return;
    atRest = false;
    platform::Sleep(1u << attempt);
  }
}

}  // namespace verify
}  // namespace molra
