// The quick-search day files as the host reads and marks them: a local day
// put together from two UTC files in any zone, one file as it stands,
// marks that lay out a month (and clear out the files older than the
// store), and the stored zone bias.
#include "play.h"

namespace {

using namespace molra_fuzz;

constexpr int kMaxOps = 32;

// A day near the asked one; now and then any fields at all.
SYSTEMTIME Day(Script& script, const SYSTEMTIME& asked) {
  const std::uint8_t how = script.Byte();
  if ((how & 0x80) != 0) {
    return SYSTEMTIME{static_cast<WORD>(2010 + static_cast<std::int8_t>(script.Byte())),
                      static_cast<WORD>(script.Byte() % 14), 0,
                      static_cast<WORD>(script.Byte() % 40), 0, 0, 0, 0};
  }
  SYSTEMTIME day = AddSeconds(asked, (how % 3 - 1) * 86400LL);
  day.wHour = day.wMinute = day.wSecond = day.wMilliseconds = 0;
  return day;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  Case run(data, size);
  Script& script = run.script;
  const SYSTEMTIME asked =
      AddSeconds(kAskedDay, static_cast<std::int8_t>(script.Byte()) * 86400LL);
  LayOut(run.input, asked);
  Host store;
  char rows[16 * sizeof(_tagSTIROW)];
  for (int op = 0; op < kMaxOps && !script.Empty(); ++op) {
    switch (script.Byte() % 9) {
      case 0:
        Expect(store.SaveTimeRead(nullptr, Day(script, asked), rows) == 1, "a read answers 1");
        break;
      case 1:
        store.SaveTimeReadEx(nullptr, Day(script, asked), rows);
        break;
      case 2:
        store.SaveTimeLoad(Day(script, asked));
        break;
      case 3: {  // a mark at an hour of a day near the one asked
        SYSTEMTIME t = Day(script, asked);
        t.wHour = script.Byte() % 26;
        const char channel = static_cast<char>(Channel(script));
        if (script.Byte() & 1) {
          store.SaveTimeWrite(t, channel);
        } else {
          store.SaveTimeWriteEx(t, channel);
        }
        break;
      }
      case 4:
        store.SaveTimeSet(1, static_cast<std::int8_t>(script.Byte()) % 18);
        break;
      case 5:
        store.SaveTimeDelete(Day(script, asked));
        break;
      case 6:
        store.InitSaveTime();
        break;
      case 7: {
        TIME_ZONE_INFORMATION zone{};
        store.GetTimeZoneInfoFromFile(&zone);
        break;
      }
      default:
        store.CallLoadFSinfo();
        store.DeleteOldQSFiles();
    }
  }
  return 0;
}
