// The day tables as the timeline reads them: the days of a month, the
// hours of a day and the minutes of an hour, asked around the stamps the
// catalogue holds, and the folding of a stored day record into a local day.
#include <cstring>
#include <memory>

#include "play.h"
#include "store/store_files.h"

namespace {

using namespace molra_fuzz;

constexpr int kMaxOps = 32;
constexpr int kSentinel = 0x5A5A5A5A;

// A day asked for: a basket's first or last stamp (in local time when
// `local`), moved by whole days and hours.
SYSTEMTIME Asked(CMOLRA& store, Script& script, bool local) {
  const std::uint8_t at = script.Byte();
  SYSTEMTIME t = RecordStamp(at % kBaskets, (at & 0x80) != 0);
  t = AddSeconds(t, static_cast<std::int8_t>(script.Byte()) * 3600LL);
  if (local) store.ChangeSystemToLocalTime(t, 1);
  return t;
}

// Day record k of basket b's table file as it lies there.
std::unique_ptr<_tagFSBSKTBL> StoredRecord(Script& script) {
  auto record = std::make_unique<_tagFSBSKTBL>();
  const std::uint8_t at = script.Byte();
  Machine().Get(BasketPath(at % kBaskets) + molra::kTableExt, (at >> 2) * sizeof *record,
                record.get(), sizeof *record);
  return record;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  Case run(data, size, kAskedDay);
  Script& script = run.script;
  Host store;
  ExpectCode(store.OpenFS(1));
  CWnd progress;
  for (int op = 0; op < kMaxOps && !script.Empty(); ++op) {
    switch (script.Byte() % 6) {
      case 0: {  // the days of a month, into an array of `count` entries
        int days[64];
        const LONG count = script.Byte() % 40;
        std::fill(days, days + 64, kSentinel);
        const SYSTEMTIME t = Asked(store, script, true);
        ExpectCode(store.GetSaveDateInfo(t.wYear, t.wMonth, days, count));
        for (int d = count; d < 64; ++d) Expect(days[d] == kSentinel, "a day past the count");
        break;
      }
      case 1: {
        DWORD cells[16 * 24];
        const bool shown = script.Byte() & 1;
        const SYSTEMTIME t = Asked(store, script, false);
        ExpectCode(store.GetSaveTimeInfo(t.wYear, t.wMonth, t.wDay, 0, cells,
                                         shown ? &progress : nullptr));
        break;
      }
      case 2: {
        DWORD cells[60];
        const SYSTEMTIME t = Asked(store, script, true);
        const std::uint8_t hour = script.Byte();
        const LONG channel = Channel(script);
        ExpectCode(store.GetSaveMinuteInfo(t.wYear, t.wMonth, t.wDay,
                                           hour < 0xF0 ? t.wHour : hour - 0xF4, 0, channel,
                                           cells, script.Byte() & 1));
        break;
      }
      case 3: {  // a stored day record folded into the local day of a stamp
        DWORD cells[16 * 24] = {};
        const std::unique_ptr<_tagFSBSKTBL> record = StoredRecord(script);
        const std::uint8_t how = script.Byte();
        const int side = (how & 1) != 0 ? 1 : -1;
        const CTime when(Asked(store, script, true));
        if ((how & 2) != 0) {
          store.GetSaveHourMinus(side, record.get(), cells, when);
        } else {
          store.GetSaveHourPlus(side, record.get(), cells, when);
        }
        break;
      }
      case 4: {
        const std::unique_ptr<_tagFSBSKTBL> record = StoredRecord(script);
        SYSTEMTIME found{};
        store.IsEqualDay(record.get(), Asked(store, script, true), found);
        break;
      }
      default: {
        const std::uint8_t how = script.Byte();
        if (how & 1) {
          store.CallLoadFSinfo();
        } else {
          ExpectCode(store.OpenFS(how & 2 ? 0 : 1));
        }
      }
    }
  }
  return 0;
}
