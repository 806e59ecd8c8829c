#include "play.h"

#include <vector>

#include "platform/settings.h"

namespace molra_fuzz {
namespace {

constexpr int kMaxOps = 48;

// What an input without a script plays: a minute seek at basket 0's first
// node, a walk each way, then skips.
const std::string kDefaultScript("\x00\x00\x00\x00\x00\xFF"
                                 "\x02\x01\x3F\xFF"
                                 "\x02\x00\x3F\xFF"
                                 "\x04\x01\x0A\x00\x00"
                                 "\x04\x00\x0A\x00\x00",
                                 24);

unsigned char* Payload() {
  static std::vector<unsigned char> buffer(molra::kMaxChunkLength);
  return buffer.data();
}

}  // namespace

void Host::OnReadingData(_tagCHUNKHDR* header) {
  const SYSTEMTIME t = header->stTime;
  Expect(header->dwLength <= molra::kMaxChunkLength && t.wMonth <= 12 && t.wDay <= 31 &&
             t.wHour <= 24 && t.wMinute <= 60 && t.wSecond <= 60,
         "a chunk handed out that fails the plausibility test");
}

signed char Channel(Script& script) {
  const std::uint8_t c = script.Byte(0xFF);
  return c < 0x80 ? static_cast<signed char>(c % 17 - 1) : static_cast<signed char>(c);
}

void Play(Host& store, Script& script, bool local) {
  const std::uint8_t daylight = local ? script.Byte(1) : 1;
  Script fallback(kDefaultScript);
  Script& ops = script.Empty() ? fallback : script;
  int countdown = 0;
  std::uint8_t action = 0;
  molra::platform::SetMessageHook([&] {
    if (countdown == 0 || --countdown != 0) return;
    switch (action % 5) {
      case 0: store.CloseFS(); break;
      case 1: store.OpenFS(1); break;
      case 2: store.SetExit(1); break;
      case 3: store.CallLoadFSinfo(); break;
      default: {
        DWORD cells[16 * 24];
        store.GetSaveTimeInfo(2010, 11, 18, 0, cells, nullptr);
      }
    }
  });

  for (int op = 0; op < kMaxOps && !ops.Empty(); ++op) {
    _tagCHUNKHDR header{};
    LONG result = FS_OK;
    switch (ops.Byte() % 12) {
      case 0:    // a minute seek or a second seek at the key of a node
      case 1: {  // or at a basket's first or last stamp, shifted by seconds
        const bool second = ops.Byte() & 1;
        const std::uint8_t at = ops.Byte();
        const unsigned basket = at % kBaskets;
        const std::uint8_t node = ops.Byte();
        SYSTEMTIME t = (at & 0x80) != 0 ? RecordStamp(basket, node & 1) : NodeStamp(basket, node);
        t = AddSeconds(t, static_cast<std::int8_t>(ops.Byte()));
        if (!second) t.wSecond = 0;
        if (local) store.ChangeSystemToLocalTime(t, daylight);
        header.stTime = t;
        header.chChannel = Channel(ops);
        if (local) {
          result = store.ReadData(&header, Payload(), daylight);
        } else {
          result = second ? store.ReadDataEx2(&header, Payload())
                          : store.ReadDataEx(&header, Payload());
        }
        break;
      }
      case 2:
      case 3: {  // steps along one channel or any
        const bool forward = ops.Byte() & 1;
        const int steps = 1 + ops.Byte() % 64;
        const signed char channel = Channel(ops);
        for (int i = 0; i < steps && result == FS_OK; ++i) {
          header.chChannel = channel;
          if (local) {
            result = forward ? store.ReadNextData(&header, Payload(), daylight)
                             : store.ReadPrevData(&header, Payload(), daylight);
          } else {
            result = forward ? store.ReadNextDataEx(&header, Payload())
                             : store.ReadPrevDataEx(&header, Payload());
          }
          ExpectCode(result);
        }
        break;
      }
      case 4:
      case 5: {  // key-frame skips a distance apart
        const bool forward = ops.Byte() & 1;
        const int distance = static_cast<std::int16_t>(ops.Word());
        header.chChannel = ops.Byte() < 0xF0 ? -1 : Channel(ops);
        if (local) {
          result = forward ? store.ReadNextData2(&header, Payload(), distance, daylight)
                           : store.ReadPrevData2(&header, Payload(), distance, daylight);
        } else {
          result = forward ? store.ReadNextDataEx2(&header, Payload(), distance)
                           : store.ReadPrevDataEx2(&header, Payload(), distance);
        }
        break;
      }
      case 6:
        store.SetExit(ops.Byte() & 1);
        break;
      case 7:
        molra::platform::SetStrictChunks(ops.Byte() & 1);
        break;
      case 8: {
        const std::uint8_t how = ops.Byte();
        if (how % 3 == 0) {
          store.CallLoadFSinfo();
        } else {
          result = store.OpenFS(how % 3 == 1 ? 1 : static_cast<std::int8_t>(how));
        }
        break;
      }
      case 9:  // the host's message step acts after so many steps
        countdown = 1 + ops.Byte();
        action = ops.Byte();
        break;
      case 10: {
        _tagFSBSKINFO info;
        result = store.GetBaksetInfo(static_cast<std::int8_t>(ops.Byte()), &info);
        ExpectCode(store.ReadFirstData(&header, Payload(), 1));
        ExpectCode(store.ReadLastData(&header, Payload(), 1));
        break;
      }
      default: {
        DWORD cells[60];
        const SYSTEMTIME t = NodeStamp(ops.Byte() % kBaskets, ops.Byte());
        result = store.GetSaveMinuteInfo(t.wYear, t.wMonth, t.wDay, t.wHour, 0, Channel(ops),
                                         cells, daylight);
      }
    }
    ExpectCode(result);
  }
  molra::platform::SetMessageHook(nullptr);
}

}  // namespace molra_fuzz
