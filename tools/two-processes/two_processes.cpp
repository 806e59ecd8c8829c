// molra-two-processes: a recorder process and a reader process on one
// store of three baskets, until the recorder has taken the ring round
// `--wraps` times. The reader, with strict chunk checks on, seeks, steps,
// skips and asks the timeline, and judges what it gets:
//  - every chunk handed out is the one the recorder saved, byte for byte;
//  - every refusal in the defect log names a basket that the recorder began
//    to reset after the reader last opened it;
//  - with no reset since the reader loaded the ring and opened its basket,
//    a step hands out exactly the neighbour the recording has;
//  - the day, hour and minute of a chunk show in the timeline while its
//    basket is not reset;
//  - once the recorder is done, a walk each way hands out the whole ring.
// A process that dies has crashed; one still at work after the timeout hangs.
//
//   molra-two-processes [--wraps N] [--seed S] [--dir DIRECTORY] [--timeout SECONDS]
//                       [--rate FRAMES] [--keep] [--verbose]
//
// The recorder saves at most FRAMES frames a second (1000), and keeps a
// journal beside the store: "B k b n" before the save of frame n that
// resets basket b (the k-th rollover), "E k" after it, and "D n" with the
// number of frames saved when it stops. Exit 0 when all is clean.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "molra/molra.h"
#include "platform/clock.h"

namespace {

namespace fs = std::filesystem;
using molra::platform::StampToUnixMillis;
using molra::platform::UnixMillisToStamp;

constexpr DWORD kBaskets = 3;
// 2010-11-30 22:30:00 UTC: the first hours cross a day and a month.
constexpr std::int64_t kStart = 1291156200000;
// The store's zone is one hour ahead of UTC, with no daylight time; the
// reader speaks local time.
constexpr std::int64_t kZoneMs = 3600000;
// Whether a chunk still goes into a basket whose next chunk goes to
// `writePos`; otherwise its save starts the next basket.
bool Fits(std::uint64_t writePos, DWORD length) {
  constexpr DWORD kRolloverMargin = 0x104800;  // room a basket keeps at its end
  return length + writePos + 4 + kRolloverMargin < molra::kDataFileSize;
}

struct Options {
  int wraps = 1;
  std::uint64_t seed = 1;
  fs::path dir;
  int timeout = 0;
  unsigned rate = 1000;                         // frames a second
  std::chrono::steady_clock::time_point start;  // of both processes
  bool keep = false;
  bool verbose = false;
};

struct Frame {
  std::int64_t ms;  // UTC
  int channel;
  DWORD info;
  DWORD length;
};

// The recording, frame by frame, from the seed alone: both processes
// derive the same one.
class Script {
 public:
  explicit Script(std::uint64_t seed) : m_random(seed), m_seed(seed) {}

  const Frame& operator[](std::size_t n) {
    while (m_frames.size() <= n) Grow();
    return m_frames[n];
  }
  // The first frame stamped at or after `ms`.
  std::size_t AtOrAfter(std::int64_t ms) {
    while (m_frames.empty() || m_frames.back().ms < ms) Grow();
    return static_cast<std::size_t>(
        std::lower_bound(m_frames.begin(), m_frames.end(), ms,
                         [](const Frame& f, std::int64_t t) { return f.ms < t; }) -
        m_frames.begin());
  }

  _tagCHUNKHDR Header(DWORD n, std::int64_t shiftMs = 0) {
    const Frame f = (*this)[n];
    _tagCHUNKHDR h{};
    h.byTag = static_cast<BYTE>(n * 37u);
    h.stTime = UnixMillisToStamp(f.ms + shiftMs);
    std::memcpy(h.byHostData, &n, sizeof n);  // the frame's number
    h.chChannel = static_cast<signed char>(f.channel);
    h.dwInfo = f.info;
    h.dwLength = f.length;
    return h;
  }

  void Payload(DWORD n, std::vector<unsigned char>* bytes) {
    const DWORD length = (*this)[n].length;
    bytes->resize(length + 8);
    std::uint64_t x = m_seed * 0x9E3779B97F4A7C15ull + n;
    for (DWORD i = 0; i < length; i += 8) {
      x += 0x9E3779B97F4A7C15ull;
      std::uint64_t z = x;
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
      z ^= z >> 31;
      std::memcpy(bytes->data() + i, &z, sizeof z);
    }
    bytes->resize(length);
  }

 private:
  unsigned Below(unsigned n) { return static_cast<unsigned>(m_random() % n); }
  void Grow() {
    // A frame every few hundred milliseconds of some channel; now and then
    // a pause of up to an hour and a half, so that seeks meet gaps.
    m_now += Below(300) == 0 ? 60000 * (1 + Below(90)) : 1 + Below(400);
    Frame f{m_now, static_cast<int>(Below(16)), 0, 0};
    // Every frame marks the day tables; one in eight is a key frame.
    f.info = (Below(8) == 0 ? 0x10000u : 0u) | (Below(20) == 0 ? Below(256) << 24 : 0u) |
             (1 + Below(255));
    const unsigned size = Below(10);
    f.length = size < 6   ? 1 + Below(20000)
               : size < 9 ? 20000 + Below(180000)
                          : 200000 + Below(molra::kMaxChunkLength - 200000);
    m_frames.push_back(f);
  }

  std::mt19937_64 m_random;
  const std::uint64_t m_seed;
  std::int64_t m_now = kStart;
  std::vector<Frame> m_frames;
};

// The recorder's journal: appended line by line, tailed by the reader.
class Journal {
 public:
  Journal(const fs::path& path, bool write)
      : m_fd(::open(path.c_str(), write ? O_WRONLY | O_APPEND | O_CREAT : O_RDONLY, 0644)) {}
  ~Journal() {
    if (m_fd >= 0) ::close(m_fd);
  }
  bool ok() const { return m_fd >= 0; }

  void Append(const char* format, ...) {
    char line[96];
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    // One write per line: the reader never sees half of one.
    if (::write(m_fd, line, static_cast<std::size_t>(length)) != length) std::abort();
  }

  // Takes in the lines written since the last call.
  void Tail() {
    char buffer[4096];
    for (ssize_t got; (got = ::read(m_fd, buffer, sizeof buffer)) > 0;) {
      m_partial.append(buffer, static_cast<std::size_t>(got));
    }
    std::size_t end;
    while ((end = m_partial.find('\n')) != std::string::npos) {
      const std::string line = m_partial.substr(0, end);
      m_partial.erase(0, end + 1);
      unsigned k = 0, basket = 0, frame = 0;
      if (std::sscanf(line.c_str(), "B %u %u %u", &k, &basket, &frame) == 3) {
        into.push_back(basket);
        from.push_back(frame);
      } else if (std::sscanf(line.c_str(), "E %u", &k) == 1) {
        completed = static_cast<long>(k) + 1;
      } else if (std::sscanf(line.c_str(), "D %u", &frame) == 1) {
        done = true;
        frames = frame;
      }
    }
  }
  long begun() const { return static_cast<long>(into.size()); }
  // Cycle c of the ring: cycle 0 is basket 0's first filling, cycle k + 1
  // comes of rollover k.
  DWORD CycleStart(long c) const { return c == 0 ? 0 : from[static_cast<std::size_t>(c - 1)]; }
  DWORD CycleBasket(long c) const { return c == 0 ? 0 : into[static_cast<std::size_t>(c - 1)]; }
  long CycleOf(DWORD frame) const {
    return static_cast<long>(std::upper_bound(from.begin(), from.end(), frame) - from.begin());
  }
  // The first frame the ring still holds: the start of the third newest cycle.
  DWORD RingStart() const { return CycleStart(std::max(0L, begun() - 2)); }

  std::vector<DWORD> into, from;  // per rollover: the basket reset, its first frame
  long completed = 0;
  bool done = false;
  DWORD frames = 0;

 private:
  int m_fd;
  std::string m_partial;
};

void Setup(const Options& options) {
  molra::platform::SetDriveRoot('c', (options.dir / "c").string());
  molra::platform::SetDriveRoot('d', (options.dir / "d").string());
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = -60;
  molra::platform::SetTimeZone(&zone);
  const SYSTEMTIME now = UnixMillisToStamp(kStart);
  molra::platform::SetClock(&now);
  molra::platform::SetMessageBoxHook([](const char*) {});
}

// ---------------------------------------------------------------- recorder

class Recorder : public CMOLRA {
 public:
  DWORD WritePos() const { return m_DataHdr.dwWritePos; }
  DWORD Current() { return GetFSInfo()->dwCurrent; }
  DWORD Chunks() {
    const _tagFSBSKINFO* record = Basket(Current());
    return record ? record->dwChunks : 0;
  }
};

int RunRecorder(const Options& options) {
  Script script(options.seed);
  Journal journal(options.dir / "journal", true);
  Recorder store;
  if (!journal.ok() || store.OpenFS(0) != FS_OK) {
    std::fprintf(stderr, "recorder: cannot open the store\n");
    return 1;
  }
  std::vector<unsigned char> payload;
  const int target = 3 * options.wraps;
  int rollovers = 0;
  double bytes = 0;
  DWORD n = 0;
  for (;; ++n) {
    const Frame f = script[n];
    // The save that finds no room left, or a full index, starts the next basket.
    const bool rolls = !Fits(store.WritePos(), f.length) || store.Chunks() > 70000;
    const DWORD next = rolls ? (store.Current() + 1) % kBaskets : store.Current();
    if (rolls) {
      if (rollovers == target) break;  // the ring has come round `wraps` times
      journal.Append("B %d %u %u\n", rollovers, next, n);
    }
    // Paced, so that the reader meets each basket many times while the
    // recorder fills it, and resets it.
    std::this_thread::sleep_until(options.start +
                                  std::chrono::microseconds(n * 1000000ull / options.rate));
    const SYSTEMTIME now = UnixMillisToStamp(f.ms);
    molra::platform::SetClock(&now);
    _tagCHUNKHDR header = script.Header(n);
    script.Payload(n, &payload);
    DWORD remaining = 0;
    const LONG result = store.SaveData(&header, payload.data(), &remaining, 0);
    if (result != FS_OK || store.Current() != next) {
      std::fprintf(stderr, "recorder: frame %u: result %ld, basket %u, not %u\n", n,
                   static_cast<long>(result), store.Current(), next);
      return 1;
    }
    bytes += f.length + sizeof header;
    if (rolls) journal.Append("E %d\n", rollovers++);
  }
  journal.Append("D %u\n", n);
  store.CloseFS();
  std::printf("recorder: %u frames, %d rollovers, %.0f MiB\n", n, rollovers, bytes / 1048576);
  return 0;
}

// ------------------------------------------------------------------ reader

class Reader : public CMOLRA {
 public:
  using CMOLRA::Basket;
  using CMOLRA::m_nOpenBasket;
};

struct Tally {
  long ops = 0, delivered = 0, mismatched = 0, defects = 0, honest = 0, unexplained = 0,
       misplaced = 0, timeline = 0, odd = 0, walked = 0, walkMisses = 0, exact = 0, shown = 0;
};

class ReaderRun {
 public:
  explicit ReaderRun(const Options& options)
      : m_options(options),
        m_script(options.seed),
        m_journal(options.dir / "journal", false),
        m_random(options.seed * 7919 + 1),
        m_payload(molra::kMaxChunkLength) {
    for (const auto& entry : fs::directory_iterator(options.dir / "c")) {
      std::string name = entry.path().filename().string();
      for (char& ch : name) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
      if (name == "fsdir") m_defectLog = entry.path() / "defected.dat";
    }
  }

  int Run();

 private:
  enum class Kind { kOpen, kLoad, kSeek, kStep, kSkip, kQuery };
  unsigned Below(unsigned n) { return static_cast<unsigned>(m_random() % n); }
  void Fail(long* counter, const char* format, ...);
  // Runs one call of the store and judges what it left behind.
  LONG Call(Kind kind, const std::function<LONG()>& call);
  void Load() {
    Call(Kind::kLoad, [&] {
      m_store.CallLoadFSinfo();
      return FS_OK;
    });
  }
  bool Check(long* frame);
  void CheckDefects(long startCompleted);
  bool Quiet(LONG standing) const {
    const long begun = m_journal.begun();
    return begun == m_loadAt && standing >= 0 && standing < static_cast<LONG>(kBaskets) &&
           begun == m_openedAt[standing];
  }
  // The frame a step from `from` should hand out, or -1 for none in the ring.
  long Neighbour(long from, bool forward, int channel);
  LONG Seek(DWORD target, bool toSecond, int channel);
  // `count` steps, skips and queries; a tail is played forward at the
  // recorder's own pace, right ahead of or behind the reset of its basket.
  void Moves(int count, bool tail);
  void Timeline(long frame);
  void FinalWalk();

  const Options& m_options;
  Script m_script;
  Journal m_journal;
  Reader m_store;
  std::mt19937_64 m_random;
  std::vector<unsigned char> m_payload, m_want;
  _tagCHUNKHDR m_header{};
  fs::path m_defectLog;
  std::uintmax_t m_defectSeen = 0;
  // Rollovers completed when each basket was last opened, and when the
  // ring was last loaded.
  long m_openedAt[kBaskets] = {0, 0, 0};
  long m_loadAt = 0;
  long m_pos = -1;  // the frame the reader stands on; -1 unknown
  Tally m_tally;
};

void ReaderRun::Fail(long* counter, const char* format, ...) {
  ++*counter;
  if (*counter > 20 && !m_options.verbose) return;
  va_list args;
  va_start(args, format);
  std::fprintf(stderr, "reader: ");
  std::vfprintf(stderr, format, args);
  std::fprintf(stderr, "\n");
  va_end(args);
}

// The chunk in m_header and m_payload against what the recorder saved;
// `frame` receives its number.
bool ReaderRun::Check(long* frame) {
  ++m_tally.delivered;
  DWORD n;
  std::memcpy(&n, m_header.byHostData, sizeof n);
  const DWORD bound = m_journal.done ? m_journal.frames
                                     : (m_journal.from.empty() ? 0 : m_journal.from.back()) + 70002;
  _tagCHUNKHDR want{};
  if (n < bound) {
    want = m_script.Header(n, kZoneMs);  // handed out in local time
    want.stTime.wDayOfWeek = m_header.stTime.wDayOfWeek;
  }
  const bool headerSame = n < bound && std::memcmp(&want, &m_header, sizeof want) == 0;
  DWORD differs = 0;  // the first payload byte that is not as saved
  if (headerSame) {
    m_script.Payload(n, &m_want);
    while (differs < m_want.size() && m_want[differs] == m_payload[differs]) ++differs;
  }
  const bool same = headerSame && differs == m_want.size();
  if (!same) {
    const SYSTEMTIME t = m_header.stTime;
    Fail(&m_tally.mismatched, "chunk %u (c%d %02u:%02u:%02u.%03u, %u bytes) is not as saved: %s %u",
         n, m_header.chChannel, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds, m_header.dwLength,
         headerSame ? "payload from byte" : "header, in basket",
         headerSame ? differs : static_cast<DWORD>(m_store.m_nOpenBasket));
  }
  *frame = same ? static_cast<long>(n) : -1;
  return same;
}

void ReaderRun::CheckDefects(long startCompleted) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(m_defectLog, error);
  if (error || size <= m_defectSeen) return;
  std::FILE* file = std::fopen(m_defectLog.c_str(), "rb");
  if (!file) return;
  std::fseek(file, static_cast<long>(m_defectSeen), SEEK_SET);
  std::string text(size - m_defectSeen, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), file));
  std::fclose(file);
  m_defectSeen = size;
  for (std::size_t at = 0; (at = text.find("ReadData():[", at)) != std::string::npos; ++at) {
    ++m_tally.defects;
    // The basket by the number in its file name: CreateFS numbered them as
    // the ring.
    const std::size_t close = text.find("]", at);
    const std::string path = text.substr(at + 12, close - at - 12);
    const long basket = path.size() >= 6 ? std::atol(path.c_str() + path.size() - 6) : -1;
    const long opened = basket >= 0 && basket < static_cast<long>(kBaskets) ? m_openedAt[basket]
                                                                            : m_journal.begun();
    // A refusal is owed to the recorder only if it began to reset that
    // basket after this reader opened it.
    bool overwritten = false;
    for (long k = opened; k < m_journal.begun(); ++k) {
      overwritten |= m_journal.into[static_cast<std::size_t>(k)] == static_cast<DWORD>(basket);
    }
    if (overwritten) {
      ++m_tally.honest;
    } else {
      Fail(&m_tally.unexplained,
           "refused in a basket opened after %ld rollovers, %ld begun, the call from %ld: %s",
           opened, m_journal.begun(), startCompleted,
           text.substr(at, text.find('\n', at) - at).c_str());
    }
  }
}

LONG ReaderRun::Call(Kind kind, const std::function<LONG()>& call) {
  ++m_tally.ops;
  m_journal.Tail();
  const long startCompleted = m_journal.completed;
  const LONG before = m_store.m_nOpenBasket;
  const std::uintmax_t seenBefore = m_defectSeen;
  const LONG result = call();
  m_journal.Tail();
  std::error_code error;
  const bool refused = fs::file_size(m_defectLog, error) > seenBefore && !error;
  const LONG now = m_store.m_nOpenBasket;
  // A lookup that found a node (a seek, or the entry of a step into the
  // next basket) sees the basket as it stands. A call that moved to
  // another basket without one leaves the reader at the index position it
  // had in the last basket, among whatever nodes earlier cycles left there.
  const bool found = result == FS_OK || refused;
  if (now >= 0 && now < static_cast<LONG>(kBaskets)) {
    if (kind == Kind::kOpen || (now == before ? kind == Kind::kSeek && found : found)) {
      m_openedAt[now] = startCompleted;
    } else if (now != before) {
      m_openedAt[now] = 0;
    }
  }
  if (kind == Kind::kOpen || kind == Kind::kLoad || kind == Kind::kQuery) m_loadAt = startCompleted;
  CheckDefects(startCompleted);
  if (m_options.verbose) {
    DWORD n;
    std::memcpy(&n, m_header.byHostData, sizeof n);
    std::fprintf(stderr, "  call %d: %ld, basket %d, frame %u c%d, begun %ld\n",
                 static_cast<int>(kind), static_cast<long>(result), static_cast<int>(now), n,
                 m_header.chChannel, m_journal.begun());
  }
  if (result != FS_OK && result != FS_ERR_FILE && result != FS_END_OF_DATA &&
      result != FS_BEGIN_OF_DATA) {
    Fail(&m_tally.odd, "result %ld", static_cast<long>(result));
  }
  return result;
}

long ReaderRun::Neighbour(long from, bool forward, int channel) {
  const long start = m_journal.RingStart();
  for (long n = from + (forward ? 1 : -1); n >= start && n < from + 200000; n += forward ? 1 : -1) {
    if (channel < 0 || m_script[static_cast<std::size_t>(n)].channel == channel) return n;
  }
  return -1;
}

// A seek for frame `target`'s minute or second (second 0 asks for the
// minute), of any channel or of one.
LONG ReaderRun::Seek(DWORD target, bool toSecond, int channel) {
  const Frame f = m_script[target];
  toSecond &= (f.ms / 1000) % 60 != 0;
  const std::int64_t asked = f.ms / (toSecond ? 1000 : 60000) * (toSecond ? 1000 : 60000);
  m_header = _tagCHUNKHDR{};
  m_header.stTime = UnixMillisToStamp(asked + kZoneMs);
  m_header.chChannel = static_cast<signed char>(channel);
  const LONG result =
      Call(Kind::kSeek, [&] { return m_store.ReadData(&m_header, m_payload.data(), 0); });
  m_pos = -1;
  if (result == FS_OK && Check(&m_pos)) {
    const Frame got = m_script[static_cast<std::size_t>(m_pos)];
    const std::int64_t grain = toSecond ? 1000 : 60000;
    // Any channel: the asked minute or second itself; one channel: that
    // channel, at that time or later.
    if (channel < 0 ? got.ms / grain != asked / grain : got.channel != channel || got.ms < asked) {
      Fail(&m_tally.misplaced, "a seek for frame %u's %s (channel %d) found frame %ld", target,
           toSecond ? "second" : "minute", channel, m_pos);
    }
  }
  return result;
}

void ReaderRun::Moves(int count, bool tail) {
  for (int i = 0; i < count; ++i) {
    if (tail) std::this_thread::sleep_for(std::chrono::microseconds(1000000 / m_options.rate));
    const unsigned what = tail && Below(4) != 0 ? 19 : Below(20);
    if (what < 2) {
      if (m_pos >= 0) Timeline(m_pos);
      continue;
    }
    const LONG standing = m_store.m_nOpenBasket;
    const long from = m_pos;
    m_header = _tagCHUNKHDR{};
    LONG result;
    if (what < 5) {
      m_header.chChannel = -1;
      const int distance = 1 + static_cast<int>(Below(30));
      result = Call(Kind::kSkip, [&] {
        return what == 2 ? m_store.ReadPrevData2(&m_header, m_payload.data(), distance, 0)
                         : m_store.ReadNextData2(&m_header, m_payload.data(), distance, 0);
      });
      m_pos = -1;
      if (result == FS_OK && Check(&m_pos) && !(m_header.dwInfo & 0x10000)) {
        Fail(&m_tally.misplaced, "a skip found frame %ld, no key frame", m_pos);
      }
      continue;  // a skip that ends has moved over every node it judged
    }
    const bool forward = what >= 9;
    const int channel = Below(4) == 0 ? static_cast<int>(Below(16)) : -1;
    m_header.chChannel = static_cast<signed char>(channel);
    result = Call(Kind::kStep, [&] {
      return forward ? m_store.ReadNextData(&m_header, m_payload.data(), 0)
                     : m_store.ReadPrevData(&m_header, m_payload.data(), 0);
    });
    // With no rollover since the ring was loaded and the basket opened,
    // a step has exactly one right answer.
    const long want = from >= 0 && Quiet(standing) ? Neighbour(from, forward, channel) : -2;
    m_tally.exact += want != -2;
    if (result == FS_OK) {
      if (Check(&m_pos) && want != -2 && m_pos != want) {
        Fail(&m_tally.misplaced, "a step %s from frame %ld (channel %d) found %ld, not %ld",
             forward ? "on" : "back", from, channel, m_pos, want);
      }
    } else if (result == FS_END_OF_DATA || result == FS_BEGIN_OF_DATA) {
      if (result == FS_BEGIN_OF_DATA && want >= 0) {
        Fail(&m_tally.misplaced, "a step back from frame %ld (channel %d) found the start, not %ld",
             from, channel, want);
      }
      // A walk for one channel has moved over the nodes it passed.
      m_pos = channel < 0 ? from : -1;
      // A follower loads the ring again to go on where the recorder went.
      if (result == FS_END_OF_DATA) Load();
    } else {
      m_pos = -1;
    }
  }
}

// The day, hour and minute of a delivered frame must show in the timeline
// while its basket is not reset, once an earlier frame of its channel and
// minute in the same basket has marked the tables.
void ReaderRun::Timeline(long frame) {
  const Frame f = m_script[static_cast<std::size_t>(frame)];
  const SYSTEMTIME utc = UnixMillisToStamp(f.ms);
  const SYSTEMTIME local = UnixMillisToStamp(f.ms + kZoneMs);
  DWORD hours[16 * 24];
  DWORD minutes[60];
  int days[31];
  const unsigned which = Below(3);
  const LONG result = Call(Kind::kQuery, [&] {
    switch (which) {
      case 0:
        return m_store.GetSaveDateInfo(local.wYear, local.wMonth, days, 31);
      case 1:
        return m_store.GetSaveTimeInfo(utc.wYear, utc.wMonth, utc.wDay, 0, hours, nullptr);
      default:
        return m_store.GetSaveMinuteInfo(local.wYear, local.wMonth, local.wDay, local.wHour, 0,
                                         f.channel, minutes, 0);
    }
  });
  const long cycle = m_journal.CycleOf(static_cast<DWORD>(frame));
  const DWORD basket = m_journal.CycleBasket(cycle);
  bool marked = false;
  for (long n = frame - 1; n >= static_cast<long>(m_journal.CycleStart(cycle)); --n) {
    const Frame g = m_script[static_cast<std::size_t>(n)];
    if (g.ms / 60000 != f.ms / 60000) break;
    marked |= g.channel == f.channel;
  }
  for (long k = cycle; k < m_journal.begun(); ++k) marked &= m_journal.into[k] != basket;
  if (result != FS_OK || !marked) return;
  ++m_tally.shown;
  const bool shown = which == 0   ? days[local.wDay - 1] == 1
                     : which == 1 ? hours[f.channel * 24 + utc.wHour] != 0
                                  : minutes[utc.wMinute] != 0;
  if (!shown) {
    Fail(&m_tally.timeline, "the %s query misses frame %ld (c%d %02u-%02u %02u:%02u UTC)",
         which == 0   ? "day"
         : which == 1 ? "hour"
                      : "minute",
         frame, f.channel, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute);
  }
}

// The recorder has stopped: the ring must come out whole, in order, both ways.
void ReaderRun::FinalWalk() {
  Call(Kind::kOpen, [&] { return m_store.OpenFS(1); });
  const long first = m_journal.RingStart();
  const long last = static_cast<long>(m_journal.frames) - 1;
  Seek(static_cast<DWORD>(first), true, -1);
  if (m_pos != first) {
    Fail(&m_tally.walkMisses, "the walk starts at frame %ld, not %ld", m_pos, first);
    return;
  }
  for (int pass = 0; pass < 2; ++pass) {
    const bool forward = pass == 0;
    for (long want = forward ? first + 1 : last - 1;; want += forward ? 1 : -1) {
      m_header = _tagCHUNKHDR{};
      m_header.chChannel = -1;
      const LONG result = Call(Kind::kStep, [&] {
        return forward ? m_store.ReadNextData(&m_header, m_payload.data(), 0)
                       : m_store.ReadPrevData(&m_header, m_payload.data(), 0);
      });
      const bool atEnd = forward ? want > last : want < first;
      long got = -1;
      if (result == (forward ? FS_END_OF_DATA : FS_BEGIN_OF_DATA) && atEnd) break;
      if (result != FS_OK || !Check(&got) || got != want) {
        Fail(&m_tally.walkMisses, "walking %s: result %ld, frame %ld, not %ld",
             forward ? "on" : "back", static_cast<long>(result), got, want);
        break;
      }
      ++m_tally.walked;
    }
  }
  // The timeline of a still recorder shows every frame of the ring.
  for (int i = 0; i < 300; ++i) Timeline(first + Below(static_cast<unsigned>(last - first + 1)));
}

int ReaderRun::Run() {
  if (!m_journal.ok() || m_defectLog.empty()) {
    std::fprintf(stderr, "reader: no journal or store\n");
    return 1;
  }
  molra::platform::SetStrictChunks(true);
  Call(Kind::kOpen, [&] { return m_store.OpenFS(1); });
  while (!m_journal.done) {
    if (Below(400) == 0) Call(Kind::kOpen, [&] { return m_store.OpenFS(1); });
    // The reset of the oldest basket is due when the recorder, at its pace,
    // comes near the frame that no longer fits the current one.
    std::uint64_t end = sizeof(_tagDATAHDR);
    DWORD next = m_journal.CycleStart(m_journal.begun());
    for (; Fits(end, m_script[next].length); ++next)
      end += sizeof(_tagCHUNKHDR) + m_script[next].length;
    const double due =
        next -
        std::chrono::duration<double>(std::chrono::steady_clock::now() - m_options.start).count() *
            m_options.rate;
    const bool tail = due < m_options.rate / 20.0 && Below(2) == 0;
    if (tail || Below(8) == 0) {
      Load();
    }
    const _tagFSHDR* head = m_store.GetFSInfo();
    const _tagFSBSKINFO* oldest = m_store.Basket(head->dwOldest);
    const _tagFSBSKINFO* newest = m_store.Basket(head->dwCurrent);
    if (!oldest || !newest || oldest->stFirst.wYear == 0 || newest->stLast.wYear == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      m_journal.Tail();
      continue;
    }
    const std::int64_t from = StampToUnixMillis(oldest->stFirst);
    if (tail) {
      // The oldest basket is the one the recorder resets next. The reader
      // asks for its first chunk again and again until a while after the
      // reset has begun, or waits a few chunks in for it to begin; then it
      // plays on at the recorder's own pace, just ahead of the new chunks.
      const DWORD first = static_cast<DWORD>(m_script.AtOrAfter(from));
      const bool again = Below(2) == 0;
      const long begun = m_journal.begun();
      Seek(first + (again ? 0 : Below(30)), true, -1);
      const auto waited = std::chrono::steady_clock::now();
      for (int after = 0;
           after < (again ? 50 : 1) && !m_journal.done &&
           std::chrono::steady_clock::now() - waited < std::chrono::milliseconds(300);
           after += m_journal.begun() != begun) {
        if (again) {
          Seek(first, true, -1);
        } else {
          std::this_thread::sleep_for(std::chrono::microseconds(100));
          m_journal.Tail();
        }
      }
      Moves(1 + static_cast<int>(Below(300)), true);
      continue;
    }
    // Otherwise anywhere in the ring as it was loaded.
    const std::int64_t at =
        from +
        static_cast<std::int64_t>(
            m_random() % static_cast<std::uint64_t>(StampToUnixMillis(newest->stLast) - from + 1));
    const DWORD target = static_cast<DWORD>(m_script.AtOrAfter(at));
    Seek(target, Below(2) == 0, Below(3) == 0 ? m_script[target].channel : -1);
    Moves(1 + static_cast<int>(Below(20)), false);
  }
  FinalWalk();
  m_store.CloseFS();
  const Tally& t = m_tally;
  std::printf(
      "reader: %ld calls, %ld chunks checked, %ld not as saved, %ld refusals (%ld of reset "
      "baskets, %ld unexplained), %ld steps judged exactly, %ld misplaced, %ld timeline answers "
      "judged, %ld misses, %ld odd results, final walk %ld steps, %ld misses\n",
      t.ops, t.delivered, t.mismatched, t.defects, t.honest, t.unexplained, t.exact, t.misplaced,
      t.shown, t.timeline, t.odd, t.walked, t.walkMisses);
  return t.mismatched + t.unexplained + t.misplaced + t.timeline + t.odd + t.walkMisses == 0 &&
                 t.walked > 0
             ? 0
             : 1;
}

// ------------------------------------------------------------------ parent

bool Clean(int status) { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }

std::string Status(int status, const char* stopped) {
  if (stopped) return stopped;
  if (WIFEXITED(status)) return WEXITSTATUS(status) == 0 ? "clean" : "found faults";
  if (WIFSIGNALED(status)) return "crashed (signal " + std::to_string(WTERMSIG(status)) + ")";
  return "lost";
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool value = i + 1 < argc;
    if (arg == "--wraps" && value) {
      options.wraps = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--seed" && value) {
      options.seed = std::strtoull(argv[++i], nullptr, 10);
    } else if (arg == "--dir" && value) {
      options.dir = argv[++i];
    } else if (arg == "--timeout" && value) {
      options.timeout = std::atoi(argv[++i]);
    } else if (arg == "--rate" && value) {
      options.rate = static_cast<unsigned>(std::max(1, std::atoi(argv[++i])));
    } else if (arg == "--keep") {
      options.keep = true;
    } else if (arg == "--verbose") {
      options.verbose = true;
    } else {
      std::fprintf(stderr,
                   "usage: %s [--wraps N] [--seed S] [--dir DIRECTORY] [--timeout SECONDS] "
                   "[--rate FRAMES] [--keep] [--verbose]\n",
                   argv[0]);
      return 2;
    }
  }
  if (options.dir.empty()) {
    options.dir = fs::temp_directory_path() /
                  ("molra-two-" + std::to_string(::getpid()) + "-" + std::to_string(options.seed));
  }
  if (options.timeout <= 0) options.timeout = 30 + 30 * options.wraps;
  fs::remove_all(options.dir);
  fs::create_directories(options.dir);
  Setup(options);
  {
    _tagBSKLOC where{3, static_cast<LONG>(kBaskets)};
    CMOLRA maker;
    maker.CallLoadFSinfo();
    if (maker.CreateFS(&where, 1) != FS_OK) {
      std::fprintf(stderr, "cannot lay out the store in %s\n", options.dir.c_str());
      return 1;
    }
  }
  Journal(options.dir / "journal", true);  // there before either process starts
  std::fflush(stdout);
  options.start = std::chrono::steady_clock::now();
  const auto& started = options.start;
  pid_t children[2];
  for (int role = 0; role < 2; ++role) {
    children[role] = ::fork();
    if (children[role] == 0) {
      const int code = role == 0 ? RunRecorder(options) : ReaderRun(options).Run();
      std::fflush(stdout);
      ::_exit(code);
    }
  }
  int status[2] = {0, 0};
  bool running[2] = {true, true}, hung = false;
  const char* stopped[2] = {nullptr, nullptr};  // why the parent ended it
  while (running[0] || running[1]) {
    for (int role = 0; role < 2; ++role) {
      if (running[role] && ::waitpid(children[role], &status[role], WNOHANG) == children[role]) {
        running[role] = false;
      }
    }
    // A reader waits for a recorder that failed in vain; anyone still at
    // work after the timeout hangs.
    const bool late =
        std::chrono::steady_clock::now() - started > std::chrono::seconds(options.timeout);
    for (int role = 0; role < 2; ++role) {
      if (!running[role] || !(late || (role == 1 && !running[0] && !Clean(status[0])))) continue;
      ::kill(children[role], SIGKILL);
      ::waitpid(children[role], &status[role], 0);
      running[role] = false;
      stopped[role] = late ? "hung" : "stopped";
      hung |= late;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  const bool clean = !hung && Clean(status[0]) && Clean(status[1]);
  std::printf(
      "two processes, seed %llu, %d wrap%s of %u baskets, %.1f s: recorder %s, reader %s: %s\n",
      static_cast<unsigned long long>(options.seed), options.wraps, options.wraps == 1 ? "" : "s",
      kBaskets, seconds, Status(status[0], stopped[0]).c_str(),
      Status(status[1], stopped[1]).c_str(), clean ? "clean" : "FAILED");
  if (!options.keep) fs::remove_all(options.dir);
  return clean ? 0 : 1;
}
