// The chunk index: the tree that inserts leave in the file, lookups and
// walks over it, opening and closing, and what a cut insert leaves behind.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "index/fs_index.h"
#include "molra/platform.h"
#include "platform/env.h"
#include "platform/fault_injection.h"
#include "support/temp_drives.h"

namespace {

namespace platform = molra::platform;
using Fields = std::array<DWORD, 6>;  // dwOpen, dwRoot, dwEnd, dwFirst, dwLast, dwCount
using Links = std::array<DWORD, 3>;   // dwParent, dwLeft, dwRight

constexpr char kPath[] = "C:\\IX\\00.CIN";

// Offset of the i-th node in file order.
constexpr DWORD At(int i) { return molra::kRootOffset + molra::kNodeSize * i; }

// The key of a chunk on 2010-11-18 at h:m:s plus `ms`.
std::string Key(int h, int m, int s, int ms = 0) {
  char text[64];
  std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d%04d%02d", 2010, 11, 18, h, m, s, ms, 0);
  return text;
}

Fields Of(const _tagIDXHDR& h) { return {h.dwOpen, h.dwRoot, h.dwEnd, h.dwFirst, h.dwLast, h.dwCount}; }

// The chain P Q R S, then X (Q < X < R) and Y (X < Y < R) out of order.
const std::vector<std::string> kWalkKeys = {Key(9, 30, 0),  Key(9, 30, 10), Key(9, 30, 20),
                                            Key(9, 30, 30), Key(9, 30, 15), Key(9, 30, 17)};
const std::vector<std::string> kChain = {Key(9, 30, 0), Key(9, 30, 10), Key(9, 30, 20)};

class IndexTest : public molra_test::TempDrives {
 protected:
  void SetUp() override {
    TempDrives::SetUp();
    ASSERT_TRUE(platform::CurrentEnv()->MakeDirectory("C:\\IX"));
    platform::SetMessageHook([this] { ++m_steps; });
  }
  void TearDown() override {
    platform::SetMessageHook(nullptr);
    TempDrives::TearDown();
  }
  // Opens `index` and enters `keys` in order; the i-th carries dwOffset 1000 * i.
  static void Fill(CFsIndex* index, const std::vector<std::string>& keys, const char* path = kPath) {
    ASSERT_EQ(index->Open(path, 2, 0), 1);
    for (DWORD i = 0; i < keys.size(); ++i) {
      ASSERT_EQ(index->Insert(keys[i].c_str(), _tagIDXREF{1, 0, 1000 * i}), 1) << keys[i];
    }
  }
  // A header or node as the file holds it; zeros beyond its end.
  template <typename T>
  T Read(DWORD offset, const std::string& name = "00.CIN") const {
    T record{};
    const auto bytes = ReadAll(Real('c', "IX/" + name));
    if (bytes.size() >= offset + sizeof record) std::memcpy(&record, &bytes[offset], sizeof record);
    return record;
  }
  Fields Head(const std::string& name = "00.CIN") const { return Of(Read<_tagIDXHDR>(0, name)); }
  Links LinksAt(DWORD offset, const std::string& name = "00.CIN") const {
    const auto node = Read<_tagIDXNODE>(offset, name);
    return {node.dwParent, node.dwLeft, node.dwRight};
  }
  int Walk(CFsIndex* index, bool next, DWORD from, DWORD* found, std::string* key = nullptr) {
    _tagIDXNODE node{};
    m_steps = 0;
    const int ok = next ? index->NextNode(&node, from, found) : index->PrevNode(&node, from, found);
    if (key) *key = std::string(node.cKey, 20);
    return ok;
  }
  long m_steps = 0;
};

TEST_F(IndexTest, InsertsAppendDescendFromTheFirstNodeOrAppendUnseenAndRefuseDuplicates) {
  CFsIndex index;
  Fill(&index, {kWalkKeys.begin(), kWalkKeys.begin() + 5});
  EXPECT_EQ(Of(index.Header()), (Fields{1, At(0), At(4), At(4), At(3), 5}));
  char key[21] = {};
  ASSERT_EQ(index.Last(key, nullptr), 1);  // X, written last, though R follows it
  EXPECT_EQ(key, kWalkKeys[4]);
  EXPECT_EQ(index.Next(nullptr, nullptr), 0);
  ASSERT_EQ(index.Insert(kWalkKeys[5].c_str(), {}), 1);
  EXPECT_EQ(Head(), (Fields{1, At(0), At(5), At(4), At(5), 6}));
  const Links shape[] = {{0, 0, At(1)}, {At(0), 0, At(2)}, {At(1), At(4), At(3)},
                         {At(2), 0, 0}, {At(2), 0, At(5)}, {At(4), 0, 0}};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(LinksAt(At(i)), shape[i]) << i;

  // Keys that descend again: the one at dwLast, ones on the way, the first.
  const auto file = ReadAll(Real('c', "IX/00.CIN"));
  const _tagIDXHDR memory = index.Header();
  for (const int i : {5, 4, 1, 0}) EXPECT_EQ(index.Insert(kWalkKeys[i].c_str(), {}), 0) << i;
  EXPECT_EQ(ReadAll(Real('c', "IX/00.CIN")), file);
  EXPECT_EQ(std::memcmp(&memory, &index.Header(), sizeof memory), 0);

  // With the top bit of dwInfo set, the same key and a smaller one follow Y.
  ASSERT_EQ(index.Insert(kWalkKeys[5].c_str(), {2, 0x80000005u, 0}), 1);
  ASSERT_EQ(index.Insert(Key(9, 29, 0).c_str(), {3, 0x80000000u, 0}), 1);
  EXPECT_EQ(Head(), (Fields{1, At(0), At(7), At(4), At(7), 8}));
  EXPECT_EQ(LinksAt(At(6)), (Links{At(5), 0, At(7)}));
  EXPECT_EQ(LinksAt(At(7)), (Links{At(6), 0, 0}));

  EXPECT_LT(CFsIndex::CompareKey("20101118093059000000", "2010111809305\x80" "000000", -1), 0);
  EXPECT_EQ(CFsIndex::CompareKey(Key(9, 30, 0).c_str(), Key(9, 30, 59).c_str(), 12), 0);
}

TEST_F(IndexTest, WalksFollowTheTreeAndStopAtTheHeaderEnds) {
  CFsIndex index;
  Fill(&index, kWalkKeys);
  struct Step { int from, next, prev; long nextSteps, prevSteps; };  // -1: none
  const Step table[] = {{0, 1, -1, 0, 0}, {1, 2, 0, 0, 0}, {2, 3, 4, 0, 0},
                        {3, -1, 2, 2, 0}, {4, 5, 1, 0, 1}, {5, 2, 4, 1, 0}};
  for (const Step& s : table) {
    for (const bool next : {true, false}) {
      const int want = next ? s.next : s.prev;
      DWORD found = 0;
      std::string key;
      EXPECT_EQ(Walk(&index, next, At(s.from), &found, &key), want >= 0 ? 1 : 0) << s.from << next;
      EXPECT_EQ(m_steps, next ? s.nextSteps : s.prevSteps) << s.from << next;
      if (want < 0) continue;
      EXPECT_EQ(found, At(want));
      EXPECT_EQ(key, kWalkKeys[want]);
    }
  }
  EXPECT_EQ(index.Prev(nullptr, nullptr), 0);  // no position yet
  char key[21] = {};
  ASSERT_EQ(index.First(key, nullptr), 1);
  EXPECT_EQ(key, kWalkKeys[4]);
  EXPECT_EQ(index.Prev(nullptr, nullptr), 0);
  EXPECT_EQ(index.Cursor(), At(4));
  ASSERT_EQ(index.Last(nullptr, nullptr), 1);
  EXPECT_EQ(index.Next(nullptr, nullptr), 0);
  EXPECT_EQ(index.Cursor(), At(5));
}

TEST_F(IndexTest, AClimbGivesUpAfter160Parents) {
  for (const bool next : {true, false}) {
    // A run of right links hanging left of the first node, or of left
    // links hanging right of it: 160 parents to climb, then 161.
    const auto runKey = [next](int i) { return Key(9, 0, 0, next ? i : 9000 - i); };
    std::vector<std::string> keys = {Key(next ? 23 : 0, 0, 0)};
    for (int i = 1; i <= 160; ++i) keys.push_back(runKey(i));
    CFsIndex index;
    Fill(&index, keys, next ? "C:\\IX\\N.CIN" : "C:\\IX\\P.CIN");
    DWORD found = 0;
    EXPECT_EQ(Walk(&index, next, At(160), &found), 1);
    EXPECT_EQ(found, At(0));
    EXPECT_EQ(m_steps, 159);
    ASSERT_EQ(index.Insert(runKey(161).c_str(), {}), 1);
    EXPECT_EQ(Walk(&index, next, At(161), &found), 0) << next;
    EXPECT_EQ(m_steps, 160);
  }
}

TEST_F(IndexTest, FindTakesTheEarliestChunkOfAPrefixWhateverTheReadAhead) {
  Fill(std::make_unique<CFsIndex>().get(), {Key(9, 29, 50), Key(9, 30, 5), Key(9, 30, 5, 500),
                                            Key(9, 30, 40), Key(9, 31, 0), Key(9, 33, 10)});
  Fill(std::make_unique<CFsIndex>().get(), kWalkKeys, "C:\\IX\\W.CIN");
  struct Lookup { const char* file; std::string key; int n, found; long steps; };  // -1: fails
  const Lookup table[] = {
      {kPath, Key(9, 30, 59), 12, 1, 1},         {kPath, Key(9, 30, 5, 999), 14, 1, 1},
      {kPath, Key(9, 30, 40), 14, 3, 3},         {kPath, Key(9, 30, 5, 500), -1, 2, 2},
      {kPath, Key(9, 32, 0), 12, -1, 5},         {kPath, Key(9, 20, 0), 12, -1, 0},
      {kPath, Key(10, 0, 0), 12, -1, 5},         {kPath, Key(9, 29, 50), 14, 0, 0},
      {"C:\\IX\\W.CIN", kWalkKeys[5], -1, 5, 4}, {"C:\\IX\\W.CIN", Key(9, 30, 16), 14, -1, 4}};
  for (const DWORD ahead : {0u, 41u, 50u, 100u, 64u * 1024}) {
    for (const Lookup& l : table) {
      CFsIndex index;
      index.SetReadAhead(ahead);
      ASSERT_EQ(index.Open(l.file, 2, 0), 1);
      ASSERT_EQ(index.Last(nullptr, nullptr), 1);
      const DWORD before = index.Cursor();
      _tagIDXREF ref{};
      m_steps = 0;
      EXPECT_EQ(index.Find(l.key.c_str(), &ref, l.n), l.found >= 0 ? 1 : 0) << l.key << " " << ahead;
      EXPECT_EQ(index.Cursor(), l.found >= 0 ? At(l.found) : before) << l.key << " " << ahead;
      EXPECT_EQ(DWORD{ref.dwOffset}, l.found >= 0 ? 1000u * l.found : 0u) << l.key;
      EXPECT_EQ(m_steps, l.steps) << l.key << " " << ahead;
    }
  }
}

TEST_F(IndexTest, AResetIndexIsEmptyAndItsFirstNodeStandsAlone) {
  CFsIndex index;
  Fill(&index, kChain);
  ASSERT_EQ(index.First(nullptr, nullptr), 1);  // a position in the tree about to go
  ASSERT_EQ(index.Close(), 1);
  ASSERT_EQ(index.Open(kPath, 2, 1), 1);
  EXPECT_EQ(Head(), (Fields{1, 0, 0, 0, 0, 0}));
  char key[21] = {};
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(index.Next(key, nullptr) + index.Prev(key, nullptr), 0) << round;
    for (const auto& k : kChain) EXPECT_EQ(index.Find(k.c_str(), nullptr, -1), 0) << k;
    if (round == 1) break;
    EXPECT_EQ(index.First(key, nullptr) + index.Last(key, nullptr), 0);
    ASSERT_EQ(index.Insert(Key(10, 0, 0).c_str(), {}), 1);
    EXPECT_EQ(Head(), (Fields{1, At(0), At(0), At(0), At(0), 1}));
    EXPECT_EQ(LinksAt(At(0)), (Links{0, 0, 0}));
    ASSERT_EQ(index.First(key, nullptr), 1);
    EXPECT_EQ(key, Key(10, 0, 0));
    ASSERT_EQ(index.Last(key, nullptr), 1);
    EXPECT_EQ(index.Cursor(), At(0));
  }
}

TEST_F(IndexTest, OpenFreshensAShortOrForeignHeadAndBelievesAValidOne) {
  const _tagIDXHDR valid = {{'Y', 'K'}, 256, 7, 1234, At(1), At(0), At(1), 99};
  const std::string head(reinterpret_cast<const char*>(&valid), sizeof valid);
  const std::string foreign = head.substr(0, 2) + '\x01' + head.substr(3);  // version 257
  const Fields fresh{1, 0, 0, 0, 0, 0};
  struct Case { std::string content; Fields fields; int finds; };
  const Case cases[] = {{head.substr(0, 27), fresh, 0}, {std::string(28 + 41, '\0'), fresh, 0},
                        {foreign, fresh, 0}, {head, Of(valid), 0},
                        {head + std::string(82, 'k'), Of(valid), 1}};
  for (const Case& c : cases) {
    std::ofstream(Real('c', "IX/00.CIN"), std::ios::binary | std::ios::trunc) << c.content;
    CFsIndex index;
    ASSERT_EQ(index.Open(kPath, 2, 0), 1);
    EXPECT_EQ(Of(index.Header()), c.fields);
    EXPECT_EQ(Head(), c.fields);
    // Lookups start at the first node, whatever dwRoot says.
    EXPECT_EQ(index.Find(std::string(20, 'k').c_str(), nullptr, -1), c.finds);
    EXPECT_EQ(FileSize(Real('c', "IX/00.CIN")), std::max<long long>(28, c.content.size()));
    ASSERT_EQ(index.Close(), 1);
    EXPECT_EQ(Head(), (Fields{0, c.fields[1], c.fields[2], c.fields[3], c.fields[4], c.fields[5]}));
  }

  // So do descents: Q < new < R goes left of Q, not of a believed root R.
  Fill(std::make_unique<CFsIndex>().get(), kChain, "C:\\IX\\R.CIN");
  std::fstream(Real('c', "IX/R.CIN"), std::ios::binary | std::ios::in | std::ios::out)
      .seekp(offsetof(_tagIDXHDR, dwRoot)).write("\x6e\0\0\0", 4);  // At(2)
  CFsIndex index;
  Fill(&index, {Key(9, 30, 5)}, "C:\\IX\\R.CIN");
  EXPECT_EQ(LinksAt(At(1), "R.CIN"), (Links{At(0), At(3), At(2)}));
}

TEST_F(IndexTest, AReaderClosingNeverSetsTheRecordersTreeBack) {
  CFsIndex recorder, reader;
  Fill(&recorder, {Key(9, 30, 0), Key(9, 30, 10)});
  ASSERT_EQ(reader.Open(kPath, 2, 0), 1);
  EXPECT_EQ(Of(reader.Header()), (Fields{1, At(0), At(1), At(0), At(1), 2}));
  ASSERT_EQ(recorder.Insert(Key(9, 30, 20).c_str(), {}), 1);
  ASSERT_EQ(recorder.Insert(Key(9, 30, 30).c_str(), {}), 1);
  ASSERT_EQ(reader.Close(), 1);
  EXPECT_EQ(Head(), (Fields{0, At(0), At(3), At(0), At(3), 4}));
  ASSERT_EQ(recorder.Close(), 1);
  EXPECT_EQ(Head(), (Fields{0, At(0), At(3), At(0), At(3), 4}));
}

TEST_F(IndexTest, ACutAppendLeavesTheOldTreeAndTheNextInsertTakesItsPlace) {
  // Writes of one append: 1 the node, 2 the parent's link, 3 the header.
  // Case 4 fails the node's write alone, with the power on.
  for (const DWORD cut : {1u, 2u, 3u, 4u}) {
    const std::string name = std::to_string(cut) + ".CIN", path = "C:\\IX\\" + name;
    Fill(std::make_unique<CFsIndex>().get(), kChain, path.c_str());
    const Fields before = Head(name);
    {
      platform::ScopedFaultInjection faults;
      CFsIndex index;
      ASSERT_EQ(index.Open(path.c_str(), 2, 0), 1);
      cut < 4 ? faults->CutPowerAtWrite(cut) : faults->FailWriteAt(1);
      EXPECT_EQ(index.Insert(Key(9, 30, 30).c_str(), {}), cut == 3 ? 1 : 0);
    }  // closed while the faults last
    EXPECT_EQ(Head(name), before) << cut;
    EXPECT_EQ(LinksAt(At(2), name)[2], cut == 3 ? At(3) : 0) << cut;
    CFsIndex index;
    ASSERT_EQ(index.Open(path.c_str(), 2, 0), 1);
    ASSERT_EQ(index.Last(nullptr, nullptr), 1);
    EXPECT_EQ(index.Cursor(), At(2));
    EXPECT_EQ(index.Next(nullptr, nullptr), 0);
    EXPECT_EQ(index.Find(Key(9, 30, 30).c_str(), nullptr, -1), cut == 3 ? 1 : 0) << cut;
    for (const bool next : {true, false}) {  // a stray node leads nowhere
      DWORD found = 0;
      if (cut == 3) continue;
      EXPECT_EQ(Walk(&index, next, At(3), &found) + m_steps, 0) << cut << next;
    }
    ASSERT_EQ(index.Insert(Key(9, 30, 40).c_str(), {}), 1);
    EXPECT_EQ(Head(name), (Fields{0, At(0), At(3), At(0), At(3), 4})) << cut;
    EXPECT_EQ(LinksAt(At(2), name)[2], At(3));
    EXPECT_EQ(index.Find(Key(9, 30, 40).c_str(), nullptr, -1), 1);
    EXPECT_EQ(index.Cursor(), At(3));
    EXPECT_EQ(index.Find(Key(9, 30, 30).c_str(), nullptr, -1), 0) << cut;
  }
}

}  // namespace
