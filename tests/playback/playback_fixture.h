// A recorder and a player on one store of the test's own drives, and
// short readable forms of what a read delivers.
#pragma once

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "index/fs_index.h"
#include "molra/platform.h"
#include "store/store_probe.h"

using molra::detail::CFsIndex;

namespace molra_test {

class Player : public StoreProbe {
 public:
  using CMOLRA::m_ChanHits, CMOLRA::m_FsHdr, CMOLRA::m_nOpenBasket, CMOLRA::m_stLastRead;
  void OnReadingData(_tagCHUNKHDR* /*header*/) override { ++readings; }
  int readings = 0;
};

inline SYSTEMTIME At(WORD hour, WORD minute, WORD second, WORD ms = 0, WORD day = 18) {
  return SYSTEMTIME{2010, 11, 0, day, hour, minute, second, ms};
}

// A chunk to save.
struct Shot { int channel; SYSTEMTIME t; bool key = false; DWORD length = 8; };
constexpr Shot kNext{-1, {}};

class PlaybackTest : public StoreTest {
 protected:
  void TearDown() override {
    molra::platform::SetStrictChunks(false);
    player.CloseFS();
    recorder.CloseFS();
    StoreTest::TearDown();
  }
  // A store of `baskets` on drive D, open to record.
  void Make(LONG baskets) {
    recorder.CallLoadFSinfo();
    _tagBSKLOC loc{3, baskets};
    ASSERT_EQ(recorder.CreateFS(&loc, 1), FS_OK);
    ASSERT_EQ(recorder.OpenFS(0), FS_OK);
  }
  // Payload bytes tell channel and second apart.
  static std::vector<BYTE> Payload(int channel, const SYSTEMTIME& t, DWORD length) {
    return std::vector<BYTE>(length, static_cast<BYTE>(channel * 60 + t.wSecond % 60));
  }
  void Save(int channel, const SYSTEMTIME& t, bool key = false, DWORD length = 8) {
    _tagCHUNKHDR chunk{1, t, {}, static_cast<signed char>(channel), key ? 0x10000u : 0u, length};
    std::vector<BYTE> payload = Payload(channel, t, length);
    DWORD remaining = 0;
    ASSERT_EQ(recorder.SaveData(&chunk, payload.data(), &remaining, 0), FS_OK);
  }
  // The next save goes to the next basket of the ring.
  void NextBasket() { recorder.Basket(recorder.GetFSInfo()->dwCurrent)->dwChunks = 70001; }
  void Play() { ASSERT_EQ(player.OpenFS(1), FS_OK); }
  // A store of `baskets` with these chunks saved in turn (kNext moves on a
  // basket), and the player on it when `play`.
  void Lay(LONG baskets, std::initializer_list<Shot> shots, bool play = false) {
    ASSERT_NO_FATAL_FAILURE(Make(baskets));
    for (auto& s : shots) s.channel < 0 ? NextBasket() : Save(s.channel, s.t, s.key, s.length);
    if (play) Play();
  }

  // "c3 10:05:07" for a delivered chunk, else the result code as "#n".
  std::string Brief(LONG result, const _tagCHUNKHDR& h) {
    if (result != FS_OK) return "#" + std::to_string(result);
    const SYSTEMTIME t = h.stTime;
    char text[48];
    std::snprintf(text, sizeof text, "c%d %02u:%02u:%02u", h.chChannel, t.wHour, t.wMinute,
                  t.wSecond);
    if (h.dwLength != 0 && payload[0] != Payload(h.chChannel, t, 1)[0]) return "bad payload";
    return text;
  }
  std::string Seek(int channel, const SYSTEMTIME& t, bool toSecond) {
    _tagCHUNKHDR h{0, t, {}, static_cast<signed char>(channel), 0, 0};
    return Brief(toSecond ? player.ReadDataEx2(&h, payload.data())
                          : player.ReadDataEx(&h, payload.data()), h);
  }
  std::string Step(int channel, bool forward = true) {
    _tagCHUNKHDR h{0, {}, {}, static_cast<signed char>(channel), 0, 0};
    return Brief(forward ? player.ReadNextDataEx(&h, payload.data())
                         : player.ReadPrevDataEx(&h, payload.data()), h);
  }
  std::string Skip(int distance, bool forward = true) {
    _tagCHUNKHDR h{0, {}, {}, -1, 0, 0};
    return Brief(forward ? player.ReadNextDataEx2(&h, payload.data(), distance)
                         : player.ReadPrevDataEx2(&h, payload.data(), distance), h);
  }

  // Rewrites the header of the n-th chunk (index order) of basket b.
  template <typename Change>
  void Damage(int basket, size_t n, Change change) {
    const DWORD offset = Offset(basket, n);
    std::fstream data(DataPath(basket), std::ios::in | std::ios::out | std::ios::binary);
    _tagCHUNKHDR h;
    data.seekg(offset).read(reinterpret_cast<char*>(&h), sizeof h);
    change(h);
    data.seekp(offset).write(reinterpret_cast<const char*>(&h), sizeof h);
  }
  // Where the n-th chunk (index order) of basket b lies in its data file.
  DWORD Offset(int basket, size_t n) const {
    CFsIndex index;
    const std::string base = "D:\\MOLRA\\FS00000" + std::to_string(basket);
    char key[20];
    _tagIDXREF ref{};
    bool found = index.Open((base + ".CIN").c_str(), 2, 0) && index.First(key, &ref);
    for (size_t i = 0; i < n && found; ++i) found = index.Next(key, &ref);
    EXPECT_TRUE(found);
    return ref.dwOffset;
  }
  std::string DataPath(int basket) const {
    return Real('d', "MOLRA/FS00000" + std::to_string(basket) + ".CDT");
  }
  std::string DefectLog() const { return ReadAll(Real('c', "FSDIR/defected.dat")); }

  Player recorder;
  Player player;
  std::vector<BYTE> payload = std::vector<BYTE>(molra::kMaxChunkLength);
};

}  // namespace molra_test
