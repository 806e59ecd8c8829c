// molra-crash-campaign: cuts the power at random writes of a random
// recording, leaves on disk one state the cut could have left, then
// records on with a fresh recorder and plays everything back with a fresh
// player, comparing every chunk handed out with what was saved.
//
//   molra-crash-campaign --trials N --seed S [--dir DIRECTORY] [--strict] [--no-cut] [--verbose]
//
// The last line counts, over all trials, the stores that would not open
// again, the chunks handed out that were never saved as they came back,
// the recorders that could not save after the restart, the chunks lost
// although a flush (or no cut at all, after the restart) covered them,
// and the chunks lost that no flush covered. Only the last may be above 0.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "molra/molra.h"
#include "platform/crash_env.h"

namespace {

namespace fs = std::filesystem;
using molra::platform::CrashEnv;

constexpr int kBaskets = 3;
// 2010-11-18 09:00:00 UTC in milliseconds from 1970.
constexpr std::uint64_t kStart = 1290070800000ull;

// Opens the ring's records to the campaign, and moves the ring on.
class Store : public CMOLRA {
 public:
  using CMOLRA::Basket, CMOLRA::m_nOpenBasket;
  DWORD Current() { return GetFSInfo()->dwCurrent; }
  DWORD Oldest() { return GetFSInfo()->dwOldest; }
  // The next save goes to the next basket of the ring, as a full one would.
  void FillBasket() {
    if (_tagFSBSKINFO* record = Basket(Current())) record->dwChunks = 70001;
  }
};

SYSTEMTIME Stamp(std::uint64_t ms) {
  const std::int64_t days = static_cast<std::int64_t>(ms / 86400000);
  const std::uint64_t inDay = ms % 86400000;
  // Civil date from days since 1970 (proleptic Gregorian).
  const std::int64_t z = days + 719468;
  const std::int64_t era = z / 146097;
  const std::int64_t doe = z - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  const std::int64_t d = doy - (153 * mp + 2) / 5 + 1;
  const std::int64_t m = mp < 10 ? mp + 3 : mp - 9;
  const std::int64_t y = yoe + era * 400 + (m <= 2 ? 1 : 0);
  SYSTEMTIME t{};
  t.wYear = static_cast<WORD>(y);
  t.wMonth = static_cast<WORD>(m);
  t.wDayOfWeek = static_cast<WORD>((days + 4) % 7);
  t.wDay = static_cast<WORD>(d);
  t.wHour = static_cast<WORD>(inDay / 3600000);
  t.wMinute = static_cast<WORD>(inDay / 60000 % 60);
  t.wSecond = static_cast<WORD>(inDay / 1000 % 60);
  t.wMilliseconds = static_cast<WORD>(inDay % 1000);
  return t;
}

std::uint64_t Millis(SYSTEMTIME t) {  // by value: headers are packed
  // Days from civil, the inverse of the above.
  const std::int64_t y = t.wYear - (t.wMonth <= 2 ? 1 : 0);
  const std::int64_t era = y / 400;
  const std::int64_t yoe = y - era * 400;
  const std::int64_t mp = t.wMonth > 2 ? t.wMonth - 3 : t.wMonth + 9;
  const std::int64_t doy = (153 * mp + 2) / 5 + t.wDay - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  const std::int64_t days = era * 146097 + doe - 719468;
  return static_cast<std::uint64_t>(days) * 86400000 + t.wHour * 3600000ull + t.wMinute * 60000ull +
         t.wSecond * 1000ull + t.wMilliseconds;
}

// A saved chunk; its payload follows from its stamp and channel.
struct Chunk {
  std::uint64_t ms;
  int channel;
  DWORD info;
  DWORD length;
  DWORD basket = 0;
  bool saved = false;       // SaveData said FS_OK
  bool covered = false;     // a flush after it, or no cut after it
  bool expendable = false;  // its basket was reused or aged since
  bool seen = false;
};

_tagCHUNKHDR Header(const Chunk& c) {
  _tagCHUNKHDR h{};
  h.byTag = static_cast<BYTE>(0xA0 + c.channel);
  h.stTime = Stamp(c.ms);
  const std::uint64_t mix = c.ms * 2654435761u;
  std::memcpy(h.byHostData, &mix, sizeof h.byHostData);
  h.chChannel = static_cast<signed char>(c.channel);
  h.dwInfo = c.info;
  h.dwLength = c.length;
  return h;
}

void Fill(const Chunk& c, std::vector<unsigned char>* payload) {
  payload->resize(c.length);
  std::uint32_t x = static_cast<std::uint32_t>(c.ms * 2246822519u) ^ (c.channel * 0x9E3779B9u);
  for (DWORD i = 0; i < c.length; ++i) {
    x = x * 1664525u + 1013904223u;
    (*payload)[i] = static_cast<unsigned char>(x >> 24);
  }
}

// What a garbage chunk was, as far as the campaign can tell.
enum Kind { kNeverSaved, kOfReusedBasket, kFlushed, kUnflushed, kKinds };
const char* const kKindNames[kKinds] = {"never saved", "of a reused basket", "flushed",
                                        "no flush covered"};

struct Totals {
  long trials = 0, reopenFailures = 0, garbage = 0, stuck = 0, lostFlushed = 0, lostUnflushed = 0;
  long kinds[kKinds] = {};
  long beforeRepair = 0;  // garbage handed to a reader before any recorder reopened
};

class Trial {
 public:
  Trial(std::uint64_t seed, const fs::path& dir, bool cut, bool verbose)
      : m_random(seed), m_seed(seed), m_dir(dir), m_cut(cut), m_verbose(verbose) {}

  void Run(Totals* totals);

 private:
  unsigned Below(unsigned n) { return static_cast<unsigned>(m_random() % n); }
  void SetNow(std::uint64_t ms) {
    const SYSTEMTIME now = Stamp(ms);
    molra::platform::SetClock(&now);
  }
  // Saves the next chunk; false once the power is off.
  bool SaveNext(Store& recorder, bool afterCut);
  // Chunks of basket b are no longer owed once the ring comes round to it.
  void Entered(DWORD basket, std::size_t before) {
    for (std::size_t i = 0; i < before; ++i) {
      if (m_chunks[i].basket == basket) m_chunks[i].expendable = true;
    }
  }
  void TakeFlushes(Store& recorder);
  // Compares a chunk handed out with what was saved; false for garbage.
  bool Check(const _tagCHUNKHDR& h, const std::vector<unsigned char>& payload, Kind* kind);
  void Note(const char* what, const _tagCHUNKHDR& h) {
    if (!m_verbose) return;
    const SYSTEMTIME t = h.stTime;
    std::fprintf(stderr, "seed %llu: %s c%d %04u-%02u-%02u %02u:%02u:%02u.%03u len %u\n",
                 static_cast<unsigned long long>(m_seed), what, h.chChannel, t.wYear, t.wMonth,
                 t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds, h.dwLength);
  }
  long Play(Totals* totals, bool beforeRepair);

  std::mt19937_64 m_random;
  const std::uint64_t m_seed;
  const fs::path m_dir;
  const bool m_cut;
  const bool m_verbose;
  CrashEnv m_env;
  std::uint64_t m_now = kStart;
  std::uint64_t m_restart = 0;
  DWORD m_interval = 0;
  std::vector<Chunk> m_chunks;
  std::unordered_map<std::uint64_t, std::size_t> m_byStamp;
  std::vector<unsigned char> m_payload;
};

bool Trial::SaveNext(Store& recorder, bool afterCut) {
  // Mostly a frame every few dozen milliseconds; now and then a pause of
  // hours or a day, so that hours, days and ageing come into play.
  const unsigned jump = Below(400);
  m_now += jump == 0 ? 86400000ull : jump < 3 ? 3600000ull * (1 + Below(5)) : 1 + Below(120);
  SetNow(m_now);
  Chunk c{m_now, static_cast<int>(Below(16)), 0, 1 + Below(Below(8) == 0 ? 20000 : 1500)};
  c.info =
      (Below(6) == 0 ? 0x10000u : 0u) | (Below(16) == 0 ? (Below(256) << 24) : 0u) | Below(0x100);
  _tagCHUNKHDR h = Header(c);
  Fill(c, &m_payload);
  const DWORD before = recorder.Current();
  const std::size_t index = m_chunks.size();
  m_byStamp[c.ms] = index;
  m_chunks.push_back(c);
  DWORD remaining = 0;
  const LONG result = recorder.SaveData(&h, m_payload.data(), &remaining, 0);
  Chunk& saved = m_chunks[index];
  saved.basket = recorder.Current();
  if (saved.basket != before) Entered(saved.basket, index);
  saved.saved = result == FS_OK;
  // No cut comes after the restart: what it saves must all come back.
  saved.covered = saved.saved && afterCut;
  if (!afterCut) TakeFlushes(recorder);
  if (m_env.PowerCut()) return false;
  if (Below(10) == 0) recorder.SaveTimeWrite(h.stTime, static_cast<char>(c.channel));
  return !m_env.PowerCut();
}

void Trial::TakeFlushes(Store& recorder) {
  // A save ends with the data file, index, day tables and catalogue
  // flushed when one is due; leaving a basket flushes the old one first.
  const std::vector<std::string> flushes = m_env.TakeFlushes();
  bool catalogue = false, currentData = false;
  std::string data;
  if (const _tagFSBSKINFO* record = recorder.Basket(recorder.Current())) {
    data = std::string(record->szPath) + ".CDT";
    for (char& ch : data) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  }
  for (const std::string& path : flushes) {
    if (path.size() >= 4 && path.compare(path.size() - 4, 4, ".CFT") == 0) catalogue = true;
    if (path == data) currentData = true;
  }
  if (!catalogue) return;
  const std::size_t last = m_chunks.size() - 1;
  for (std::size_t i = 0; i < last; ++i) m_chunks[i].covered |= m_chunks[i].saved;
  if (currentData) m_chunks[last].covered |= m_chunks[last].saved;
}

bool Trial::Check(const _tagCHUNKHDR& got, const std::vector<unsigned char>& payload,
                  Kind* kind) {
  const auto it = m_byStamp.find(Millis(got.stTime));
  if (it == m_byStamp.end()) {
    Note("never saved", got);
    *kind = kNeverSaved;
    return false;
  }
  Chunk& c = m_chunks[it->second];
  const _tagCHUNKHDR want = Header(c);
  std::vector<unsigned char> bytes;
  Fill(c, &bytes);
  if (std::memcmp(&want, &got, sizeof want) != 0 ||
      std::memcmp(bytes.data(), payload.data(), c.length) != 0) {
    Note(c.expendable ? "differs, of a reused basket"
         : c.covered  ? "differs though flushed"
                      : "differs",
         got);
    *kind = c.expendable ? kOfReusedBasket : c.covered ? kFlushed : kUnflushed;
    if (m_verbose) {
      const auto* a = reinterpret_cast<const unsigned char*>(&want);
      const auto* b = reinterpret_cast<const unsigned char*>(&got);
      for (std::size_t i = 0; i < sizeof want; ++i) {
        if (a[i] != b[i]) std::fprintf(stderr, "  header byte %zu: %u, not %u\n", i, b[i], a[i]);
      }
      for (DWORD i = 0; i < c.length; ++i) {
        if (bytes[i] != payload[i]) {
          std::fprintf(stderr, "  payload from byte %u: %02x %02x, not %02x %02x\n", i, payload[i],
                       payload[i + 1 < c.length ? i + 1 : i], bytes[i],
                       bytes[i + 1 < c.length ? i + 1 : i]);
          break;
        }
      }
    }
    return false;
  }
  c.seen = true;
  return true;
}

// Plays everything back; a reader before the repair marks nothing seen.
long Trial::Play(Totals* totals, bool beforeRepair) {
  Store player;
  if (player.OpenFS(1) != FS_OK) return 1;
  std::vector<bool> seen;
  for (const Chunk& c : m_chunks) seen.push_back(c.seen);
  std::vector<unsigned char> payload(molra::kMaxChunkLength);
  _tagCHUNKHDR h{};
  std::vector<std::uint64_t> bad;  // each garbage chunk counts once
  auto read = [&](LONG result) {
    Kind kind = kKinds;
    if (result == FS_OK && !Check(h, payload, &kind)) {
      const std::uint64_t ms = Millis(h.stTime);
      if (std::find(bad.begin(), bad.end(), ms) == bad.end()) {
        bad.push_back(ms);
        ++totals->garbage;
        ++totals->kinds[kind];
        if (beforeRepair) ++totals->beforeRepair;
      }
    }
    return result;
  };
  // The walk starts at the earliest minute that still has a chunk.
  bool placed = false;
  std::uint64_t lastMinute = ~0ull;
  int tries = 0;
  for (const Chunk& c : m_chunks) {
    if (c.ms / 60000 == lastMinute || tries > 200) continue;
    lastMinute = c.ms / 60000;
    ++tries;
    h = _tagCHUNKHDR{};
    h.stTime = Stamp(lastMinute * 60000);
    h.chChannel = -1;
    const LONG sought = read(player.ReadDataEx(&h, payload.data()));
    if (m_verbose) {
      const SYSTEMTIME t = Stamp(lastMinute * 60000);
      std::fprintf(stderr, "  seek %02u:%02u: %ld\n", t.wHour, t.wMinute,
                   static_cast<long>(sought));
    }
    if (sought == FS_OK) {
      if (m_verbose) Note("walk from", h);
      placed = true;
      break;
    }
  }
  if (placed) {
    const std::size_t limit = m_chunks.size() * 2 + 100;
    for (std::size_t step = 0; step < limit; ++step) {
      h.chChannel = -1;  // the request's channel: any
      const LONG result = read(player.ReadNextDataEx(&h, payload.data()));
      if (m_verbose && result != FS_OK)
        std::fprintf(stderr, "  step %zu: %ld\n", step, static_cast<long>(result));
      if (result == FS_END_OF_DATA || result == FS_ERR_INDEX) break;
    }
  }
  // A refused chunk can end a seek; what the walk missed is sought again
  // by its second, and stepped to from there.
  for (std::size_t i = 0; i < m_chunks.size(); ++i) {
    const Chunk c = m_chunks[i];
    if (!c.saved || c.seen || c.expendable) continue;
    h = _tagCHUNKHDR{};
    h.stTime = Stamp(c.ms);
    h.stTime.wMilliseconds = 0;
    h.chChannel = -1;
    LONG result = read(player.ReadDataEx2(&h, payload.data()));
    if (result != FS_OK && result != FS_ERR_FILE) continue;
    for (int step = 0; step < 40 && !m_chunks[i].seen; ++step) {
      if (result == FS_OK && Millis(h.stTime) > c.ms) break;
      h.chChannel = -1;
      result = read(player.ReadNextDataEx(&h, payload.data()));
      if (result == FS_END_OF_DATA || result == FS_ERR_INDEX) break;
    }
  }
  // Then seeks to single seconds, steps both ways and key-frame skips.
  for (int round = 0; round < 12 && !m_chunks.empty(); ++round) {
    const Chunk& c = m_chunks[Below(static_cast<unsigned>(m_chunks.size()))];
    h = _tagCHUNKHDR{};
    h.stTime = Stamp(c.ms);
    h.stTime.wMilliseconds = 0;
    if (h.stTime.wSecond == 0) h.stTime.wSecond = 1;
    h.chChannel = static_cast<signed char>(Below(3) == 0 ? c.channel : -1);
    if (read(player.ReadDataEx(&h, payload.data())) != FS_OK) continue;
    for (int move = 0; move < 6; ++move) {
      h.chChannel = static_cast<signed char>(Below(3) == 0 ? static_cast<int>(Below(16)) : -1);
      switch (Below(4)) {
        case 0:
          read(player.ReadNextDataEx(&h, payload.data()));
          break;
        case 1:
          read(player.ReadPrevDataEx(&h, payload.data()));
          break;
        case 2:
          h.chChannel = -1;
          read(player.ReadNextDataEx2(&h, payload.data(), 1 + static_cast<int>(Below(5))));
          break;
        default:
          h.chChannel = -1;
          read(player.ReadPrevDataEx2(&h, payload.data(), 1 + static_cast<int>(Below(5))));
          break;
      }
    }
  }
  player.CloseFS();
  if (beforeRepair) {
    for (std::size_t i = 0; i < seen.size(); ++i) m_chunks[i].seen = seen[i];
  }
  return 0;
}

void Trial::Run(Totals* totals) {
  ++totals->trials;
  fs::remove_all(m_dir);
  molra::platform::SetDriveRoot('c', (m_dir / "c").string());
  molra::platform::SetDriveRoot('d', (m_dir / "d").string());
  m_interval = Below(2) == 0 ? 0 : 1 + Below(3);
  molra::platform::SetFlushInterval(m_interval);
  SetNow(m_now);
  {
    _tagBSKLOC where{3, kBaskets};
    if (CMOLRA().CreateFS(&where, 1) != FS_OK) {
      std::fprintf(stderr, "seed %llu: no store\n", static_cast<unsigned long long>(m_seed));
      ++totals->reopenFailures;
      return;
    }
  }
  molra::platform::SetCurrentEnv(&m_env);
  const unsigned saves = 40 + Below(400);
  constexpr DWORD kNone = 0xFFFFFFFFu;
  DWORD rolling = kNone;  // the basket a forced rollover leaves
  DWORD crashedAt = 0;
  const DWORD cutAt = 1 + Below(saves * 11);
  m_env.CutPowerAtWrite(m_cut ? cutAt : 0);
  {
    Store recorder;
    if (recorder.OpenFS(0) == FS_OK) {
      m_env.TakeFlushes();
      for (unsigned i = 0; i < saves; ++i) {
        const unsigned what = Below(100);
        if (what < 2) {
          recorder.FillBasket();
          rolling = recorder.Current();
        } else if (what < 3 && recorder.Oldest() != recorder.Current()) {
          // Whatever of the oldest basket lies on or before the cut-off
          // day may go.
          const unsigned days = 1 + Below(2);
          const std::uint64_t cutDay = m_now / 86400000 - days;
          const DWORD oldest = recorder.Oldest();
          for (Chunk& c : m_chunks) {
            if (c.basket == oldest && c.ms / 86400000 <= cutDay) c.expendable = true;
          }
          _tagFSBSKINFO info;
          recorder.GetOldestBasketInfoAndBasketControl(days, &info);
          if (m_env.PowerCut()) break;
        }
        if (!SaveNext(recorder, false)) break;
        rolling = kNone;
      }
    }
    if (m_cut) m_env.CutPower();
    crashedAt = recorder.Current();
    // A rollover the cut stopped may have started to reset the next basket.
    if (rolling != kNone) Entered((rolling + 1) % kBaskets, m_chunks.size());
  }  // the recorder goes down without power
  if (m_env.PowerCut()) {
    const CrashEnv::Outcome outcome = m_env.Settle(m_random());
    if (m_verbose) {
      std::fprintf(stderr, "seed %llu: of the pending writes %u kept, %u dropped, %u torn\n",
                   static_cast<unsigned long long>(m_seed), outcome.kept, outcome.dropped,
                   outcome.torn);
    }
  }

  // A player may open the store before any recorder has repaired it.
  if (Below(2) == 0) totals->reopenFailures += Play(totals, true);
  {
    Store recorder;
    if (recorder.OpenFS(0) != FS_OK) {
      if (m_verbose)
        std::fprintf(stderr, "seed %llu: no reopen\n", static_cast<unsigned long long>(m_seed));
      ++totals->reopenFailures;
      molra::platform::SetCurrentEnv(nullptr);
      return;
    }
    // A damaged current basket is left for the next one of the ring.
    if (recorder.Current() == (crashedAt + 1) % kBaskets)
      Entered(recorder.Current(), m_chunks.size());
    // The restart is hours later.
    m_now += 3600000;
    m_restart = m_now;
    if (m_verbose)
      std::fprintf(stderr, "reopened at basket %u, oldest %u\n", recorder.Current(),
                   recorder.Oldest());
    const unsigned more = 10 + Below(40);
    for (unsigned i = 0; i < more; ++i) SaveNext(recorder, true);
    if (!m_chunks.back().saved) {
      if (m_verbose)
        std::fprintf(stderr, "seed %llu: stuck\n", static_cast<unsigned long long>(m_seed));
      ++totals->stuck;
    }
    recorder.CloseFS();
  }
  const long garbageBefore = totals->garbage;
  totals->reopenFailures += Play(totals, false);
  const long garbage = totals->garbage - garbageBefore;
  for (const Chunk& c : m_chunks) {
    if (!c.saved || c.seen || c.expendable) continue;
    if (c.covered) {
      ++totals->lostFlushed;
      if (m_verbose) {
        Note("lost though flushed", Header(c));
        std::fprintf(stderr, "  basket %u%s\n", c.basket,
                     c.saved && c.ms > m_restart ? ", after the restart" : "");
      }
    } else {
      ++totals->lostUnflushed;
    }
  }
  molra::platform::SetCurrentEnv(nullptr);
  if (m_verbose) {
    long before = 0, after = 0;
    for (const Chunk& c : m_chunks) {
      if (c.saved && !c.seen && !c.expendable && c.covered) ++(c.ms > m_restart ? after : before);
    }
    std::fprintf(stderr,
                 "seed %llu: interval %u, lost flushed %ld, lost after restart %ld, garbage %ld\n",
                 static_cast<unsigned long long>(m_seed), m_interval, before, after, garbage);
  }
}

}  // namespace

int main(int argc, char** argv) {
  long trials = 0;
  std::uint64_t seed = 1;
  fs::path dir =
      fs::temp_directory_path() / ("molra-crash-" + std::to_string(std::random_device{}()));
  bool verbose = false;
  bool cut = true;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--trials" && i + 1 < argc) {
      trials = std::strtol(argv[++i], nullptr, 10);
    } else if (arg == "--seed" && i + 1 < argc) {
      seed = std::strtoull(argv[++i], nullptr, 10);
    } else if (arg == "--dir" && i + 1 < argc) {
      dir = argv[++i];
    } else if (arg == "--verbose") {
      verbose = true;
    } else if (arg == "--no-cut") {
      cut = false;
    } else if (arg == "--strict") {
      molra::platform::SetStrictChunks(true);
    } else {
      std::fprintf(
          stderr,
          "usage: %s --trials N --seed S [--dir DIRECTORY] [--strict] [--no-cut] [--verbose]\n",
          argv[0]);
      return 2;
    }
  }
  TIME_ZONE_INFORMATION utc{};
  molra::platform::SetTimeZone(&utc);
  molra::platform::SetMessageBoxHook([](const char*) {});
  Totals totals;
  for (long t = 0; t < trials; ++t) {
    // Each trial's seed alone replays it (--trials 1 --seed that).
    const Totals before = totals;
    Trial(seed + static_cast<std::uint64_t>(t), dir / "store", cut, verbose).Run(&totals);
    if (totals.reopenFailures != before.reopenFailures || totals.stuck != before.stuck ||
        totals.lostFlushed != before.lostFlushed ||
        totals.kinds[kNeverSaved] != before.kinds[kNeverSaved] ||
        totals.kinds[kFlushed] != before.kinds[kFlushed]) {
      std::fprintf(stderr, "seed %llu failed: see --trials 1 --seed %llu --verbose\n",
                   static_cast<unsigned long long>(seed + t),
                   static_cast<unsigned long long>(seed + t));
    }
  }
  if (!verbose) fs::remove_all(dir);  // a verbose run keeps its last store
  std::printf("garbage by kind:");
  for (int k = 0; k < kKinds; ++k) std::printf(" %s %ld,", kKindNames[k], totals.kinds[k]);
  std::printf(" handed out before a repair %ld\n", totals.beforeRepair);
  std::printf(
      "trials %ld, reopen failures %ld, garbage chunks %ld, stuck recorders %ld, lost before "
      "flush %ld, lost unflushed %ld\n",
      totals.trials, totals.reopenFailures, totals.garbage, totals.stuck, totals.lostFlushed,
      totals.lostUnflushed);
  const bool clean = totals.reopenFailures == 0 && totals.garbage == 0 && totals.stuck == 0 &&
                     totals.lostFlushed == 0;
  return clean ? 0 : 1;
}
