// A store of baskets on drive D, open to record, its files read back as
// bytes, records and index keys, and damaged by hand.
#pragma once

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "playback/playback_fixture.h"

namespace molra_test {

constexpr size_t kHead = sizeof(_tagFSHDR), kRec = sizeof(_tagFSBSKINFO);
constexpr size_t kDay = sizeof(_tagFSBSKTBL);
constexpr size_t kFirstAt = 84, kDaysAt = 116;  // stFirst and dwDays in a record

template <typename T>
T Get(const Bytes& b, size_t at) {
  T v{};
  if (at < b.size()) std::memcpy(&v, &b[at], std::min(sizeof v, b.size() - at));
  return v;
}
template <typename T>
void Put(Bytes* b, size_t at, const T& v) {
  b->replace(at, sizeof v, reinterpret_cast<const char*>(&v), sizeof v);
}
template <typename T>
Bytes Raw(const T& v) {
  return Bytes(reinterpret_cast<const char*>(&v), sizeof v);
}
inline Bytes Word(DWORD v) { return Raw(v); }
// Plain file I/O on a test drive, as a lost, torn or cut write leaves it.
inline void Poke(const std::string& path, DWORD offset, const Bytes& bytes) {
  std::fstream(path, std::ios::binary | std::ios::in | std::ios::out)
      .seekp(offset)
      .write(bytes.data(), static_cast<long>(bytes.size()));
}

inline SYSTEMTIME On(WORD day, WORD hour, WORD minute = 0, WORD second = 0, WORD ms = 0) {
  return SYSTEMTIME{2010, 11, 0, day, hour, minute, second, ms};
}

class Recorder : public StoreProbe {
 public:
  using CMOLRA::m_DataHdr, CMOLRA::m_FsHdr;
};

class RecordingTest : public StoreTest {
 protected:
  void TearDown() override {
    rec.CloseFS();
    StoreTest::TearDown();
  }
  void Make(LONG baskets) {
    _tagBSKLOC loc{3, baskets};
    ASSERT_EQ(rec.CreateFS(&loc, 1), FS_OK);
    ASSERT_EQ(rec.OpenFS(0), FS_OK);
  }
  LONG Save(int channel, const SYSTEMTIME& t, DWORD info = 0x00010000, DWORD length = 8,
            DWORD* remaining = nullptr) {
    _tagCHUNKHDR h{0xA5, t, {}, static_cast<signed char>(channel), info, length};
    std::vector<BYTE> payload(length, static_cast<BYTE>('a' + channel));
    DWORD ignored = 0;
    return rec.SaveData(&h, payload.data(), remaining ? remaining : &ignored, 0);
  }
  void Fill() { rec.Basket(rec.m_FsHdr.dwCurrent)->dwChunks = 70001; }  // the next save rolls over

  static std::string Name(int n) { return "D:\\MOLRA\\FS00000" + std::to_string(n); }
  std::string Path(int n, const char* ext) const {
    return Real('d', "MOLRA/FS00000" + std::to_string(n) + ext);
  }
  Bytes Rec(int n) const { return Catalogue().substr(kHead + n * kRec, kRec); }
  _tagFSBSKINFO RecordOnDisk(int n) const { return Get<_tagFSBSKINFO>(Rec(n), 0); }
  // The catalogue and basket n's files, its data up to the sparse tail.
  std::vector<Bytes> Files(int n) const {
    return {Catalogue(), ReadAll(Path(n, ".CIN")), ReadAll(Path(n, ".CTA")),
            ReadAll(Path(n, ".CDT"), 4096)};
  }
  std::vector<std::pair<std::string, _tagIDXREF>> Index(int n) const {
    std::vector<std::pair<std::string, _tagIDXREF>> entries;
    CFsIndex index;
    char key[20];
    _tagIDXREF ref{};
    if (!index.Open((Name(n) + ".CIN").c_str(), 2, 0)) return entries;
    for (int ok = index.First(key, &ref); ok; ok = index.Next(key, &ref))
      entries.emplace_back(std::string(key, 20), ref);
    return entries;
  }
  std::vector<std::string> Keys(int n) const {
    std::vector<std::string> keys;
    for (const auto& entry : Index(n)) keys.push_back(entry.first);
    return keys;
  }

  Recorder rec;
};

// Where chunk i lies in a data file of 8-byte chunks.
constexpr DWORD ChunkAt(int i) { return 16 + (sizeof(_tagCHUNKHDR) + 8) * i; }
using molra::NodeAt;

// A recorder and fresh players on a store that power cuts and failed
// writes reach; chunks of 8 bytes, each a key frame.
class DamageTest : public PlaybackTest {
 protected:
  void Fresh() {
    for (const char drive : {'c', 'd'}) std::filesystem::remove_all(Root(drive));
  }
  // All of the store's files, the data files up to where chunks end.
  std::map<std::string, Bytes> Files() const {
    std::map<std::string, Bytes> files;
    for (const char drive : {'c', 'd'}) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(Root(drive))) {
        const std::string path = entry.path().generic_string();
        if (entry.is_regular_file()) files[path] = ReadAll(path, 1 << 20);
      }
    }
    return files;
  }
  static LONG SaveWith(CMOLRA& store, int channel, const SYSTEMTIME& t, DWORD info = 0x10000) {
    _tagCHUNKHDR chunk{1, t, {}, static_cast<signed char>(channel), info, 8};
    std::vector<BYTE> bytes = Payload(channel, t, 8);
    DWORD remaining = 0;
    return store.SaveData(&chunk, bytes.data(), &remaining, 0);
  }
  std::string Seen(int channel, const SYSTEMTIME& t) {
    return Brief(FS_OK, {1, t, {}, static_cast<signed char>(channel), 0, 0});
  }
  // What a fresh player finds from `first` on, then how the walk ended.
  std::vector<std::string> Walk(const SYSTEMTIME& first) {
    Player fresh;
    if (fresh.OpenFS(1) != FS_OK) return {"no open"};
    _tagCHUNKHDR h{};
    h.stTime = first;
    h.chChannel = -1;
    std::vector<std::string> seen;
    for (LONG r = fresh.ReadDataEx2(&h, payload.data()); seen.size() < 1000;
         h.chChannel = -1, r = fresh.ReadNextDataEx(&h, payload.data())) {
      seen.push_back(Brief(r, h));
      if (r != FS_OK) break;
    }
    return seen;
  }
};

}  // namespace molra_test
