// The catalogue as every load reads it, and what a load leads to: the
// basket records handed to the host, a player's open and seek, a recorder's open (which checks and repairs the current
// basket) and saves, ageing the oldest basket, blanking old day tables
// and deleting a basket, with the player still holding its basket.
#include <vector>

#include "play.h"

namespace {

using namespace molra_fuzz;

// A chunk behind the current basket's last stamp, or anywhere.
void Save(CMOLRA& recorder, Script& script, DWORD current) {
  static std::vector<unsigned char> payload(4096, 0x5A);
  _tagCHUNKHDR chunk{};
  chunk.stTime = AddSeconds(RecordStamp(current % kBaskets, true),
                            static_cast<std::int8_t>(script.Byte(1)));
  chunk.chChannel = static_cast<signed char>(script.Byte() % 17);
  chunk.dwInfo = DWORD{script.Byte()} << 16 | DWORD{script.Byte()} << 24;
  chunk.dwLength = script.Word(64) % payload.size();
  DWORD remaining = 0;
  ExpectCode(recorder.SaveData(&chunk, payload.data(), &remaining, 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  Case run(data, size, kAskedDay);
  Script& script = run.script;

  Host player;
  player.CallLoadFSinfo();
  const DWORD baskets = player.GetFSInfo()->dwBaskets;
  const DWORD current = player.GetFSInfo()->dwCurrent;
  Expect(baskets == 0 || (current < baskets && player.GetFSInfo()->dwOldest < baskets),
         "a loaded ring position past the list");
  _tagFSBSKINFO info;
  for (LONG n = -1; n <= static_cast<LONG>(baskets) && n < 64; ++n) {
    ExpectCode(player.GetBaksetInfo(n, &info));
  }
  ExpectCode(player.OpenFS(1));
  static std::vector<unsigned char> payload(molra::kMaxChunkLength);
  _tagCHUNKHDR header{};
  header.stTime = RecordStamp(current % kBaskets, false);
  header.chChannel = Channel(script);
  ExpectCode(player.ReadDataEx(&header, payload.data()));
  ExpectCode(player.ReadNextDataEx(&header, payload.data()));

  Host recorder;
  ExpectCode(recorder.OpenFS(0));
  for (int saves = script.Byte(2) % 4; saves > 0; --saves) Save(recorder, script, current);
  const std::uint8_t days = script.Byte(30);
  recorder.GetOldestBasketInfoAndBasketControl(days, &info);
  const std::uint8_t blank = script.Byte();
  if (blank & 1) ExpectCode(recorder.DelTBLSaveDataInfo("20101118", std::to_string(days)));
  if (blank & 2) ExpectCode(recorder.DeleteBakset(static_cast<std::int8_t>(script.Byte())));
  recorder.CloseFS();

  header.chChannel = -1;
  ExpectCode(player.ReadNextDataEx(&header, nullptr));
  return 0;
}
