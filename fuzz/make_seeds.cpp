// Writes the seed corpora of the fuzz targets: small stores recorded by the
// store's own calls in the memory machine, each packed with a script into
// the targets' input format.
//
//   molra-seed-corpora <corpus dir>    (writes <dir>/<target>/<seed>)
//
// Recording moves to the next basket only once one is full (64 MiB), so
// the seeds move the ring's head by hand between baskets: the stores stay
// a few kilobytes.
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "index/index_format.h"
#include "platform/clock.h"
#include "store/store_files.h"
#include "store_input.h"

namespace {

using namespace molra_fuzz;

const SYSTEMTIME kDay{2010, 11, 4, 18, 0, 0, 0, 0};

SYSTEMTIME At(int year, int month, int day, int hour, int minute, int second = 0) {
  return SYSTEMTIME{static_cast<WORD>(year),   static_cast<WORD>(month),  0,
                    static_cast<WORD>(day),    static_cast<WORD>(hour),   static_cast<WORD>(minute),
                    static_cast<WORD>(second), 0};
}

SYSTEMTIME AddMillis(const SYSTEMTIME& t, std::int64_t ms) {
  return molra::platform::UnixMillisToStamp(molra::platform::StampToUnixMillis(t) + ms);
}

void Fresh(DWORD baskets) {
  Machine().Clear();
  const SYSTEMTIME clock = At(2010, 11, 18, 9, 30, 15);
  molra::platform::SetClock(&clock);
  const TIME_ZONE_INFORMATION utc{};
  molra::platform::SetTimeZone(&utc);
  CMOLRA store;
  store.CallLoadFSinfo();
  _tagBSKLOC drives[] = {{3, static_cast<LONG>(baskets)}};
  if (store.CreateFS(drives, 1) != FS_OK) std::abort();
}

void SetHead(DWORD current, DWORD oldest) {
  Machine().Put(molra::kCatalogPath, offsetof(_tagFSHDR, dwCurrent), &current, 4);
  Machine().Put(molra::kCatalogPath, offsetof(_tagFSHDR, dwOldest), &oldest, 4);
}

// `count` chunks into basket `basket`, `stepMs` apart from `start`, over
// four channels: every fourth a key frame, now and then an event.
void Record(DWORD basket, SYSTEMTIME start, int count, int stepMs, DWORD extraInfo = 0) {
  SetHead(basket, 0);
  CMOLRA recorder;
  if (recorder.OpenFS(0) != FS_OK) std::abort();
  for (int i = 0; i < count; ++i) {
    _tagCHUNKHDR chunk{};
    chunk.byTag = static_cast<BYTE>(i);
    chunk.stTime = AddMillis(start, std::int64_t{i} * stepMs);
    chunk.chChannel = static_cast<signed char>(i % 4);
    chunk.dwInfo = DWORD(1 + i) | (i % 4 == 0 ? 0x10000u : 0) | (i % 7 == 3 ? 0x01000000u : 0) |
                   extraInfo;
    const std::string payload(static_cast<size_t>(4 + i % 13), static_cast<char>('a' + i % 26));
    chunk.dwLength = static_cast<DWORD>(payload.size());
    DWORD remaining = 0;
    if (recorder.SaveData(&chunk, payload.data(), &remaining, 0) != FS_OK) std::abort();
  }
}

// The files of the slots in `slots` as the machine holds them.
Input Capture(const std::string& script, std::vector<unsigned> slots) {
  Input input;
  input.script = script;
  for (const unsigned slot : slots) {
    const std::string path = SlotPath(slot, kDay);
    const std::uint64_t size = Machine().SizeOf(path);
    if (size == 0) continue;
    Input::File& file = input.files[slot];
    file.present = true;
    file.size = static_cast<DWORD>(size);
    constexpr DWORD kBlock = 1 << 20;
    for (DWORD at = 0; at < size; at += kBlock) {
      Input::Patch patch{at, std::string(kBlock, '\0')};
      Machine().Get(path, at, patch.bytes.data(), kBlock);
      file.patches.push_back(std::move(patch));
    }
  }
  return input;
}

std::vector<unsigned> StoreSlots(unsigned baskets) {
  std::vector<unsigned> slots{kCatalogueSlot};
  for (unsigned b = 0; b < baskets; ++b) {
    for (const BasketFile f : {kData, kIndex, kTable}) slots.push_back(BasketSlot(b, f));
  }
  return slots;
}

// Three baskets in a row on one morning.
void Ring() {
  Fresh(3);
  for (DWORD b = 0; b < 3; ++b) Record(b, At(2010, 11, 18, 9, 20 + 2 * b, 5), 14, 4300);
  SetHead(2, 0);
}

// One basket whose keys came out of order: an earlier stamp, one with the
// top bit, and saves of the same millisecond.
void Disorder() {
  Fresh(1);
  Record(0, At(2010, 11, 18, 9, 20), 10, 1000);
  Record(0, At(2010, 11, 18, 9, 19, 30), 2, 0);
  Record(0, At(2010, 11, 18, 9, 19, 40), 1, 0, 0x80000000u);
}

// The oldest basket held three days and ageing cut its first two away.
void Aged() {
  Fresh(2);
  for (int d = 0; d < 3; ++d) Record(0, At(2010, 11, 15 + d, 22, 58), 6, 20000);
  Record(1, At(2010, 11, 18, 8, 0), 8, 5000);
  SetHead(1, 0);
  CMOLRA recorder;
  recorder.OpenFS(0);
  _tagFSBSKINFO info;
  recorder.GetOldestBasketInfoAndBasketControl(2, &info);
}

// Around midnight at the end of a month, in two baskets.
void Midnight() {
  Fresh(2);
  Record(0, At(2010, 11, 30, 23, 50), 12, 40000);
  Record(1, At(2010, 11, 30, 23, 58, 30), 12, 30000);
  SetHead(1, 0);
}

// The ring with damage: the current index's header lost, a chunk header
// past every limit, and a data head behind its chunks.
void Damaged() {
  Ring();
  const std::string index = BasketPath(2) + molra::kIndexExt;
  const char foreign[4] = {'Z', 'Z', 0, 0};
  Machine().Put(index, 0, foreign, sizeof foreign);
  DWORD offset = 0;
  Machine().Get(index, molra::NodeAt(3) + 17, &offset, 4);
  const WORD month = 13;
  Machine().Put(BasketPath(2) + molra::kDataExt, offset + 3, &month, 2);
  const DWORD head = 100;
  Machine().Put(BasketPath(1) + molra::kDataExt, offsetof(_tagDATAHDR, dwWritePos), &head, 4);
}

// Hour marks in the day files of three days, and a stored zone bias.
void DayMarks() {
  Ring();
  // The first mark of the month lays out its day files from today on.
  const SYSTEMTIME first = At(2010, 11, 1, 12, 0);
  molra::platform::SetClock(&first);
  CMOLRA host;
  for (int h = 0; h < 24; h += 5) {
    for (int day = 17; day <= 19; ++day) host.SaveTimeWrite(At(2010, 11, day, h, 0), (h + day) % 16);
  }
  const LONG bias = -540;
  Machine().Put("c:\\fsdir\\tz.inf", 0, &bias, sizeof bias);
}

void Emit(const std::filesystem::path& dir, const char* target, const char* name,
          const Input& input) {
  std::filesystem::create_directories(dir / target);
  const std::string bytes = Serialise(input);
  std::ofstream(dir / target / name, std::ios::binary)
      .write(bytes.data(), static_cast<long>(bytes.size()));
}

std::string S(std::initializer_list<int> bytes) {
  std::string out;
  for (const int b : bytes) out.push_back(static_cast<char>(b));
  return out;
}

// The script words of the targets (see play.cpp and the fuzz_*.cpp).
int Ch(int channel) { return channel + 1; }
int Rec(int basket, bool last) { return basket | (last ? 0x80 : 0); }
std::string SeekNode(bool second, int basket, int node, int channel) {
  return S({0, second, basket, node, 0, Ch(channel)});
}
std::string SeekRecord(bool second, int basket, bool last, int shift, int channel) {
  return S({0, second, Rec(basket, true), last, shift, Ch(channel)});
}
std::string Steps(bool forward, int count, int channel) {
  return S({2, forward, count - 1, Ch(channel)});
}
std::string SkipBy(bool forward, int seconds) { return S({4, forward, seconds & 0xFF, seconds >> 8, 0}); }
std::string HookAfter(int steps, int action) { return S({9, steps - 1, action}); }

std::string Dates(int count, int at, int hours) { return S({0, count, at, hours}); }
std::string Hours(bool shown, int at, int hours) { return S({1, shown, at, hours}); }
std::string Minutes(int at, int hours, int channel) { return S({2, at, hours, 0, Ch(channel), 1}); }
std::string Fold(int basket, int record, bool minus, bool later, int at) {
  return S({3, basket | record << 2, (later ? 1 : 0) | (minus ? 2 : 0), at, 0});
}
std::string SameMonth(int basket, int record, int at) { return S({4, basket | record << 2, at, 0}); }

std::string DayRead(int op, int shift) { return S({op, shift + 1}); }
std::string Mark(int shift, int hour, int channel, bool ex) {
  return S({3, shift + 1, hour, Ch(channel), ex ? 0 : 1});
}

// Catalogue scripts: the seek's channel, the saves, the retention, what
// else the recorder does (1 blank tables, 2 delete a basket).
std::string Save(int shift, int channel, int frame, int events, int length) {
  return S({shift, channel, frame, events, length & 0xFF, length >> 8});
}

// Zones in the script's first bytes, then the clock: UTC, nine hours
// ahead, five behind with a daylight rule (2nd Sunday of March to the 1st
// of November), and five and a half ahead.
const std::string kUtc = S({0, 0, 0, 0});
const std::string kAhead = S({20, 0, 0, 0});
const std::string kBehindDst = S({76, 0x40, 3, 2, 2, 0, 11, 1, 2, 0, 0xC4, 0, 0});
const std::string kOdd = S({34, 0, 0, 0});

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: molra-seed-corpora <corpus dir>\n");
    return 2;
  }
  const std::filesystem::path dir = argv[1];
  const std::vector<unsigned> three = StoreSlots(3);
  const std::vector<unsigned> two = StoreSlots(2);

  const std::string walks = SeekNode(false, 0, 2, -1) + Steps(true, 40, -1) +
                            Steps(false, 60, -1) + SeekNode(true, 1, 5, 1) + Steps(true, 20, 2) +
                            Steps(false, 40, 2);
  const std::string skips = SeekRecord(true, 0, false, 0, -1) + SkipBy(true, 3) + SkipBy(true, 3) +
                            SkipBy(false, 5) + SkipBy(false, -1) + SkipBy(true, 10);
  const std::string hooked = HookAfter(4, 0) + SeekNode(false, 0, 0, 1) + HookAfter(6, 1) +
                             Steps(true, 64, 1) + HookAfter(3, 2) + SeekRecord(false, 1, false, 0, 1) +
                             Steps(true, 30, -1) + S({6, 0, 8, 1});
  const std::string strict = S({7, 1}) + SeekNode(false, 2, 0, -1) + Steps(true, 50, -1) +
                             Steps(false, 50, -1) + S({7, 0}) + SeekNode(false, 2, 0, -1) +
                             Steps(false, 10, 0);

  Ring();
  Emit(dir, "verify", "ring", Capture(kUtc, three));
  Emit(dir, "index", "ring-walks", Capture(kUtc + walks, three));
  Emit(dir, "index", "ring-hooked", Capture(kUtc + hooked, three));
  Emit(dir, "playback", "ring-skips-dst", Capture(kBehindDst + S({0, 1}) + skips, three));
  Emit(dir, "catalogue", "ring",
       Capture(kUtc + S({Ch(-1), 3}) + Save(1, 2, 0, 0, 20) + Save(2, 3, 0, 1, 200) +
                   Save(0, 1, 1, 0, 8) + S({3, 1}),
               three));
  Emit(dir, "timeline", "ring-ahead",
       Capture(kAhead + Dates(31, Rec(2, false), 0) + Hours(true, Rec(2, false), 0) +
                   Minutes(Rec(1, false), 0, 0) + Fold(0, 0, true, false, 0) +
                   Fold(0, 0, true, true, 0) + SameMonth(1, 0, 0) + S({5, 1}) +
                   Dates(20, Rec(0, true), 0),
               three));

  Disorder();
  Emit(dir, "index", "disorder", Capture(kUtc + walks + skips, StoreSlots(1)));
  Emit(dir, "catalogue", "disorder",
       Capture(kUtc + S({Ch(3), 1}) + Save(0, 3, 0, 0, 16) + S({1, 0}), StoreSlots(1)));

  Aged();
  Emit(dir, "verify", "aged", Capture(kUtc, two));
  Emit(dir, "index", "aged",
       Capture(kUtc + SeekRecord(false, 0, false, 0, -1) + Steps(false, 9, -1) +
                   Steps(true, 30, 2) + SeekNode(false, 0, 2, -1) + Steps(true, 2, -1),
               two));
  Emit(dir, "catalogue", "aged",
       Capture(kUtc + S({Ch(-1), 1}) + Save(5, 0, 0, 0, 8) + S({1, 3, 1}), two));
  Emit(dir, "timeline", "aged-behind",
       Capture(kBehindDst + Dates(31, Rec(0, false), 0) + Dates(31, Rec(0, true), 0) +
                   Hours(false, Rec(0, false), 0) + Minutes(Rec(0, true), 0, 1) +
                   Fold(0, 0, false, true, 0) + Fold(0, 0, false, false, 0),
               two));

  Midnight();
  Emit(dir, "playback", "midnight-ahead", Capture(kAhead + S({1, 1}) + walks, two));
  Emit(dir, "timeline", "midnight-odd",
       Capture(kOdd + Dates(31, Rec(0, false), 0) + Dates(31, Rec(1, true), 0) +
                   Hours(true, Rec(1, true), 0) + Minutes(Rec(1, true), 0, 2) +
                   Minutes(Rec(0, true), 0, 0) + SameMonth(1, 1, Rec(1, true)),
               two));

  Damaged();
  Emit(dir, "verify", "damaged", Capture(kUtc, three));
  Emit(dir, "index", "damaged", Capture(kUtc + walks, three));
  Emit(dir, "playback", "damaged-strict", Capture(kOdd + S({1, 1}) + strict, three));
  Emit(dir, "catalogue", "damaged",
       Capture(kUtc + S({Ch(-1), 2}) + Save(1, 2, 0, 0, 20) + Save(0, 1, 0, 0, 8) +
                   S({30, 2, 1}),
               three));

  DayMarks();
  const std::vector<unsigned> days{kCatalogueSlot, kDayFileSlot, kDayFileSlot + 1,
                                   kDayFileSlot + 2, kZoneFileSlot};
  const std::string reads = DayRead(0, 0) + DayRead(0, -1) + DayRead(0, 1) + DayRead(1, 0) +
                            DayRead(2, 1) + Mark(0, 9, 3, false) + Mark(1, 23, 15, true) +
                            DayRead(0, 0) + S({4, 0xFF, 5, 0, 6, 7, 8}) + DayRead(0, 0);
  Emit(dir, "dayfiles", "marks-utc", Capture(kUtc + S({0}) + reads, days));
  std::vector<unsigned> all = three;
  all.insert(all.end(), days.begin() + 1, days.end());
  Emit(dir, "verify", "marks", Capture(kUtc, all));
  Emit(dir, "dayfiles", "marks-ahead", Capture(kAhead + S({0}) + reads, days));
  Emit(dir, "dayfiles", "marks-behind-dst", Capture(kBehindDst + S({0}) + reads, days));
  Emit(dir, "dayfiles", "marks-odd",
       Capture(kOdd + S({0}) + reads + S({0, 0x80, 10, 2, 0}), days));
  return 0;
}
