// The chunk index: the tree that inserts leave in the file, lookups and
// walks over it, and what an open makes of the head it finds.
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "index/fs_index.h"
#include "molra/platform.h"
#include "platform/env.h"
#include "support/temp_drives.h"

using molra::detail::CFsIndex;

namespace {

namespace platform = molra::platform;
using Fields = std::array<DWORD, 6>;  // dwOpen, dwRoot, dwEnd, dwFirst, dwLast, dwCount
using Links = std::array<DWORD, 3>;   // dwParent, dwLeft, dwRight
using Went = std::tuple<int, DWORD, std::string, long>;  // answer, node, its key, climbs

constexpr char kPath[] = "C:\\IX\\00.CIN";

// Offset of the i-th node in file order.
constexpr DWORD At(int i) { return molra::kRootOffset + molra::kNodeSize * i; }

// The key of a chunk on 2010-11-18 at h:m:s plus `ms`.
std::string Key(int h, int m, int s, int ms = 0) {
  char text[64];
  std::snprintf(text, sizeof text, "20101118%02d%02d%02d%04d00", h, m, s, ms);
  return text;
}

Fields Of(const _tagIDXHDR& h) { return {h.dwOpen, h.dwRoot, h.dwEnd, h.dwFirst, h.dwLast, h.dwCount}; }

// The chain P Q R S, then X (Q < X < R) and Y (X < Y < R) out of order.
const std::vector<std::string> kWalkKeys = {Key(9, 30, 0),  Key(9, 30, 10), Key(9, 30, 20),
                                            Key(9, 30, 30), Key(9, 30, 15), Key(9, 30, 17)};
const std::vector<std::string> kChain(kWalkKeys.begin(), kWalkKeys.begin() + 3);

// A walk's answer: node i of kWalkKeys, or none for -1, after `climbs` parents.
Went To(int i, long climbs) {
  return i < 0 ? Went{0, 0, "", climbs} : Went{1, At(i), kWalkKeys[i], climbs};
}

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
  // Opens `index` (a passing one if none) and enters `keys`; the i-th carries dwOffset 1000 * i.
  static void Fill(const std::vector<std::string>& keys, const char* path = kPath,
                   CFsIndex* index = nullptr) {
    CFsIndex passing, *use = index ? index : &passing;
    ASSERT_EQ(use->Open(path, 2, 0), 1);
    for (DWORD i = 0; i < keys.size(); ++i) ASSERT_EQ(use->Insert(keys[i].c_str(), {1, 0, 1000 * i}), 1);
  }
  // A header or node as the file holds it; zeros beyond its end.
  template <typename T>
  T Read(DWORD offset, const std::string& name) const {
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
  Went Walk(CFsIndex* index, bool next, DWORD from) {
    _tagIDXNODE node{};
    DWORD found = 0;
    m_steps = 0;
    const int ok = next ? index->NextNode(&node, from, &found) : index->PrevNode(&node, from, &found);
    return ok ? Went{ok, found, std::string(node.cKey, 20), m_steps} : Went{ok, 0, "", m_steps};
  }
  long m_steps = 0;
};

TEST_F(IndexTest, InsertsBuildTheTreeWalksFollowAndDuplicatesAreRefused) {
  CFsIndex index;
  Fill(kWalkKeys, kPath, &index);
  EXPECT_EQ(Head(), (Fields{1, At(0), At(5), At(4), At(5), 6}));
  const Links shape[] = {{0, 0, At(1)}, {At(0), 0, At(2)}, {At(1), At(4), At(3)},
                         {At(2), 0, 0}, {At(2), 0, At(5)}, {At(4), 0, 0}};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(LinksAt(At(i)), shape[i]) << i;

  // From each node: the next and the climbs to it, the previous and the climbs to it.
  const int walks[][4] = {{1, 0, -1, 0}, {2, 0, 0, 0}, {3, 0, 4, 0},
                          {-1, 2, 2, 0}, {5, 0, 1, 1}, {2, 1, 4, 0}};
  for (const DWORD block : {0u, 41u, 82u, 1024u}) {  // node by node, then through blocks
    if (block != 0) index.BeginRun(block);
    for (int i = 0; i < 6; ++i) {
      EXPECT_EQ(Walk(&index, true, At(i)), To(walks[i][0], walks[i][1])) << i << " " << block;
      EXPECT_EQ(Walk(&index, false, At(i)), To(walks[i][2], walks[i][3])) << i << " " << block;
    }
    index.EndRun();
  }
  EXPECT_EQ(index.Prev(nullptr, nullptr), 0);  // no position yet
  for (const bool first : {true, false}) {     // the header's ends, not the tree's
    char key[21] = {};
    ASSERT_EQ(first ? index.First(key, nullptr) : index.Last(key, nullptr), 1);
    EXPECT_EQ(key, kWalkKeys[first ? 4 : 5]);
    EXPECT_EQ(first ? index.Prev(nullptr, nullptr) : index.Next(nullptr, nullptr), 0);
    EXPECT_EQ(index.Cursor(), At(first ? 4 : 5));
  }

  // Keys that descend again: the one at dwLast, ones on the way, the first.
  const auto file = ReadAll(Real('c', "IX/00.CIN"));
  for (const int i : {5, 4, 1, 0}) EXPECT_EQ(index.Insert(kWalkKeys[i].c_str(), {}), 0) << i;
  EXPECT_EQ(ReadAll(Real('c', "IX/00.CIN")), file);
  EXPECT_EQ(Of(index.Header()), Head());

  // With the top bit of dwInfo set, the same key and a smaller one follow Y.
  ASSERT_EQ(index.Insert(kWalkKeys[5].c_str(), {2, 0x80000005u, 0}), 1);
  ASSERT_EQ(index.Insert(Key(9, 29, 0).c_str(), {3, 0x80000000u, 0}), 1);
  EXPECT_EQ(Head(), (Fields{1, At(0), At(7), At(4), At(7), 8}));
  EXPECT_EQ(LinksAt(At(6)), (Links{At(5), 0, At(7)}));
  EXPECT_EQ(LinksAt(At(7)), (Links{At(6), 0, 0}));

  EXPECT_LT(CFsIndex::CompareKey("20101118093059000000", "2010111809305\x80" "000000", -1), 0);
}

TEST_F(IndexTest, AClimbGivesUpAfter160Parents) {
  for (const bool next : {true, false}) {
    // A run of right links hanging left of the first node, or of left
    // links hanging right of it: 160 parents to climb, then 161.
    const auto runKey = [next](int i) { return Key(9, 0, 0, next ? i : 9000 - i); };
    std::vector<std::string> keys = {Key(next ? 23 : 0, 0, 0)};
    for (int i = 1; i <= 160; ++i) keys.push_back(runKey(i));
    CFsIndex index;
    Fill(keys, next ? "C:\\IX\\N.CIN" : "C:\\IX\\P.CIN", &index);
    EXPECT_EQ(Walk(&index, next, At(160)), (Went{1, At(0), keys[0], 159})) << next;
    ASSERT_EQ(index.Insert(runKey(161).c_str(), {}), 1);
    EXPECT_EQ(Walk(&index, next, At(161)), To(-1, 160)) << next;
  }
}

TEST_F(IndexTest, FindTakesTheEarliestChunkOfAPrefixWhateverTheReadAhead) {
  Fill({Key(9, 29, 50), Key(9, 30, 5), Key(9, 30, 5, 500), Key(9, 30, 40), Key(9, 31, 0), Key(9, 33, 10)});
  Fill(kWalkKeys, "C:\\IX\\W.CIN");
  Fill(kWalkKeys, "C:\\IX\\L.CIN");  // S's right link back to Q: a loop
  std::fstream(Real('c', "IX/L.CIN"), std::ios::binary | std::ios::in | std::ios::out)
      .seekp(At(3) + offsetof(_tagIDXNODE, dwRight)).write("\x45\0\0\0", 4);
  // A descent that goes round gives up once it is longer than a made index holds nodes.
  constexpr long kRoom = (molra::kIndexFileSize - molra::kRootOffset) / molra::kNodeSize;
  struct Lookup { const char* file; std::string key; int n, found; long steps; };  // -1: fails
  const Lookup table[] = {
      {kPath, Key(9, 30, 59), 12, 1, 1},         {kPath, Key(9, 30, 5, 999), 14, 1, 1},
      {kPath, Key(9, 30, 40), 14, 3, 3},         {kPath, Key(9, 30, 5, 500), -1, 2, 2},
      {kPath, Key(9, 32, 0), 12, -1, 5},         {kPath, Key(9, 20, 0), 12, -1, 0},
      {kPath, Key(10, 0, 0), 12, -1, 5},         {kPath, Key(9, 29, 50), 14, 0, 0},
      {"C:\\IX\\W.CIN", kWalkKeys[5], -1, 5, 4}, {"C:\\IX\\W.CIN", Key(9, 30, 16), 14, -1, 4},
      {"C:\\IX\\L.CIN", Key(10, 0, 0), 12, -1, kRoom}};
  for (const DWORD ahead : {0u, 41u, 50u, 100u, 64u * 1024}) {  // the last is the default
    for (const Lookup& l : table) {
      SCOPED_TRACE(testing::Message() << l.key << " ahead " << ahead);
      CFsIndex index;
      index.SetReadAhead(ahead);
      ASSERT_EQ(index.Open(l.file, 2, 0), 1);
      ASSERT_EQ(index.Last(nullptr, nullptr), 1);  // a miss leaves the cursor at node 5
      _tagIDXREF ref{};
      m_steps = 0;
      EXPECT_EQ(index.Find(l.key.c_str(), &ref, l.n), l.found >= 0 ? 1 : 0);
      EXPECT_EQ(index.Cursor(), At(l.found >= 0 ? l.found : 5));
      EXPECT_EQ(DWORD{ref.dwOffset}, l.found >= 0 ? 1000u * l.found : 0u);
      EXPECT_EQ(m_steps, l.steps);
    }
  }
}

TEST_F(IndexTest, OpenFreshensAShortOrForeignHeadAndBelievesAValidOne) {
  const _tagIDXHDR valid = {{'Y', 'K'}, 256, 7, 1234, At(1), At(0), At(1), 99};
  const std::string head(reinterpret_cast<const char*>(&valid), sizeof valid);
  const std::string foreign = head.substr(0, 2) + '\x01' + head.substr(3);  // version 257
  const Fields fresh{1, 0, 0, 0, 0, 0};
  struct Case { std::string content; Fields fields; int finds; };
  const Case cases[] = {{head.substr(0, 27), fresh, 0}, {"YX" + head.substr(2), fresh, 0},
                        {foreign, fresh, 0}, {std::string(28 + 41, '\0'), fresh, 0},
                        {head, Of(valid), 0}, {head + std::string(82, 'k'), Of(valid), 1}};
  for (const Case& c : cases) {
    std::ofstream(Real('c', "IX/00.CIN"), std::ios::binary | std::ios::trunc) << c.content;
    CFsIndex index;
    ASSERT_EQ(index.Open(kPath, 2, 0), 1);
    EXPECT_EQ(Head(), c.fields);
    // Lookups start at the first node, whatever dwRoot says.
    EXPECT_EQ(index.Find(std::string(20, 'k').c_str(), nullptr, -1), c.finds);
  }

  // So do descents: Q < new < R goes left of Q, not of a believed root R.
  Fill(kChain, "C:\\IX\\R.CIN");
  std::fstream(Real('c', "IX/R.CIN"), std::ios::binary | std::ios::in | std::ios::out)
      .seekp(offsetof(_tagIDXHDR, dwRoot)).write("\x6e\0\0\0", 4);  // At(2)
  Fill({Key(9, 30, 5)}, "C:\\IX\\R.CIN");
  EXPECT_EQ(LinksAt(At(1), "R.CIN"), (Links{At(0), At(3), At(2)}));
}

}  // namespace
