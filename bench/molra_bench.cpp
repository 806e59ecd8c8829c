// molra-bench [--quick]: one workload through molra and through the store a
// recorder builder would write instead (sqlite_peer.h), side by side in one
// run: saving, stepping forward and back (page cache warm and dropped),
// seeks to a minute, key-frame skips, the month, day and hour queries; then
// molra alone at 1,000 to 100,000 baskets (molra_bench_scale.cpp). Besides
// its tables it prints one line per comparison:
//   vs-peer METRIC RATIO    molra's speed over the peer's (above 1: molra faster)
//   vs-limit METRIC RATIO   molra's speed over plain file I/O of the same bytes
//   scale METRIC BASKETS MILLISECONDS
#include "molra_bench.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "platform/clock.h"
#include "sqlite_peer.h"

namespace bench {

namespace fs = std::filesystem;
namespace platform = molra::platform;

namespace {
std::string g_base;  // everything the run makes lies below; removed at the end
std::vector<std::string> g_lines, g_goals;  // machine-readable lines; the goals judged
}  // namespace

std::uint64_t BytesRead() {
  char text[512] = {};
  const int fd = ::open("/proc/self/io", O_RDONLY | O_CLOEXEC);
  const ssize_t got = fd < 0 ? -1 : ::read(fd, text, sizeof text - 1);
  if (fd >= 0) ::close(fd);
  const char* rchar = got > 0 ? std::strstr(text, "rchar: ") : nullptr;
  if (!rchar) Fail("reading /proc/self/io");
  return std::strtoull(rchar + 7, nullptr, 10);
}

void Fail(const char* what, long code) {
  std::fprintf(stderr, "molra-bench: %s failed (%ld)\n", what, code);
  std::error_code ignored;
  if (!g_base.empty()) fs::remove_all(g_base, ignored);
  std::exit(1);
}

SYSTEMTIME ToStamp(std::int64_t ms) { return platform::UnixMillisToStamp(ms); }
std::int64_t ToMillis(const SYSTEMTIME& stamp) { return platform::StampToUnixMillis(stamp); }

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

void DropFile(const std::string& path, bool sync) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  if (sync) ::fdatasync(fd);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  ::close(fd);
}

void DropTree(const std::string& dir, bool sync) {
  std::error_code ignored;
  for (const auto& entry : fs::recursive_directory_iterator(dir, ignored)) {
    if (entry.is_regular_file()) DropFile(entry.path().string(), sync);
  }
}

void SyncDisk() {
  const int fd = ::open(g_base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) ::syncfs(fd);
  if (fd >= 0) ::close(fd);
}

void UseDrives(const std::string& store) {
  for (char letter = 'a'; letter <= 'z'; ++letter)
    platform::SetDriveRoot(letter, store + "/" + letter);
}

std::string RealPath(const std::string& store, const char* szPath, const char* ext) {
  std::string path = store + "/" + static_cast<char>(std::tolower(szPath[0])) + "/" + (szPath + 3);
  std::replace(path.begin(), path.end(), '\\', '/');
  return path + ext;
}

void Result(const char* kind, const char* metric, double ratio) {
  g_lines.push_back(std::string(kind) + " " + metric + " " + std::to_string(ratio));
}

void ScaleResult(const char* metric, DWORD baskets, double ms) {
  g_lines.push_back(std::string("scale ") + metric + " " + std::to_string(baskets) + " " +
                    std::to_string(ms));
}

void AddGoal(const std::string& what, double value, double limit, bool atMost) {
  char line[160];
  std::snprintf(line, sizeof line, "  %-44s %10.3f %s %-6g %s", what.c_str(), value,
                atMost ? "<=" : ">=", limit,
                (atMost ? value <= limit : value >= limit) ? "met" : "MISSED");
  g_goals.push_back(line);
}

std::vector<Frame> MakeStream(std::int64_t startMs, int seconds, bool keyOnly) {
  std::vector<Frame> stream;
  std::uint32_t noise = 12345;
  for (int f = 0; f < seconds * kFps; ++f) {
    for (int c = 0; c < kChannels; ++c) {
      noise = noise * 1103515245u + 12345u;
      const bool key = (f + 2 * c) % kGop == 0;
      const bool big = key || keyOnly;
      const DWORD length = (big ? 100000 : 10000) + (noise >> 16) % (big ? 8000 : 2000);
      stream.push_back({startMs + f * 1000LL / kFps + c, static_cast<signed char>(c), key, length});
    }
  }
  return stream;
}

namespace {

// The catalogue's records that hold chunks, in ring order, oldest first.
std::vector<_tagFSBSKINFO> RingRecords(const std::string& store) {
  const int fd = ::open((store + "/c/FSDIR/MOLRA.CFT").c_str(), O_RDONLY | O_CLOEXEC);
  _tagFSHDR head{};
  if (fd < 0 || ::pread(fd, &head, sizeof head, 0) != sizeof head) Fail("reading the catalogue");
  std::vector<_tagFSBSKINFO> all(head.dwBaskets), ring;
  const ssize_t bytes = static_cast<ssize_t>(all.size() * sizeof(_tagFSBSKINFO));
  if (::pread(fd, all.data(), bytes, sizeof head) != bytes) Fail("reading the catalogue");
  ::close(fd);
  for (DWORD n = head.dwOldest;; n = (n + 1) % head.dwBaskets) {
    if (all[n].dwChunks > 0) ring.push_back(all[n]);
    if (n == head.dwCurrent) break;
  }
  return ring;
}

// ---------------------------------------------------------------- saving

constexpr int kSlices = 24;  // a load on the machine falls on each way alike

struct Saved {
  double wall = 0, user = 0, sys = 0, bytes = 0;
};

// The process's user or system CPU seconds so far.
double CpuTime(timeval rusage::*which) {
  rusage u;
  ::getrusage(RUSAGE_SELF, &u);
  return static_cast<double>((u.*which).tv_sec) + (u.*which).tv_usec / 1e6;
}

// Saves `stream` in a new molra store below `store`, in plain appends of
// header and payload (one writev a frame) and, unless null, in the peer,
// in kSlices slices that each way takes in turn. Plain, molra, peer.
std::vector<Saved> SaveAll(const std::vector<Frame>& stream, const std::string& store,
                           SqlPeer* peer) {
  std::vector<unsigned char> payload(120000);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<unsigned char>(i * 7);
  std::vector<_tagCHUNKHDR> headers;
  double bytes = 0;
  for (const Frame& f : stream) {
    headers.push_back({1, ToStamp(f.ms), {}, f.channel, f.key ? kKeyFrame : 0, f.length});
    bytes += sizeof(_tagCHUNKHDR) + f.length;
  }
  UseDrives(store);
  CMOLRA molra;
  _tagBSKLOC drive{3, static_cast<LONG>(bytes / (62 << 20)) + 2};
  LONG rc = molra.CreateFS(&drive, 1);
  if (rc != FS_OK || (rc = molra.OpenFS(0)) != FS_OK) Fail("making a molra store", rc);
  const std::string plainPath = g_base + "/plain.bin";
  const int plain = ::open(plainPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (plain < 0) Fail("making the plain file");
  std::vector<Saved> out(3);
  for (int slice = 0; slice < kSlices; ++slice) {
    for (int k = 0; k < 3; ++k) {
      const int way = (slice + k) % 3;
      if (way == 2 && !peer) continue;
      Saved& s = out[way];
      s.user -= CpuTime(&rusage::ru_utime);
      s.sys -= CpuTime(&rusage::ru_stime);
      s.wall -= Now();
      for (size_t i = stream.size() * slice / kSlices; i < stream.size() * (slice + 1) / kSlices;
           ++i) {
        _tagCHUNKHDR h = headers[i];
        if (way == 0) {
          iovec parts[2] = {{&h, sizeof h}, {payload.data(), h.dwLength}};
          if (::writev(plain, parts, 2) != static_cast<ssize_t>(sizeof h + h.dwLength))
            Fail("append");
        } else if (way == 1) {
          DWORD remaining = 0;
          if ((rc = molra.SaveData(&h, payload.data(), &remaining, 0)) != FS_OK)
            Fail("SaveData", rc);
          if (molra.GetIFrame(h.chChannel)) molra.SetIFrame(h.chChannel);
        } else {
          peer->Save(stream[i], payload.data());
        }
        s.bytes += sizeof h + h.dwLength;
      }
      s.wall += Now();
      s.user += CpuTime(&rusage::ru_utime);
      s.sys += CpuTime(&rusage::ru_stime);
    }
  }
  molra.CloseFS();
  ::close(plain);
  ::unlink(plainPath.c_str());
  const char* names[3] = {"plain append (writev)", "molra SaveData", "peer: write + INSERT"};
  for (int way = 0; way < (peer ? 3 : 2); ++way) {
    const Saved& s = out[way];
    std::printf("  %-24s %10.0f %8.0f %8.2f %10.2f %6.2f %6.2f\n", names[way],
                stream.size() / s.wall, s.bytes / 1e6 / s.wall, s.wall,
                (s.user + s.sys) * 1e6 / stream.size(), s.user * 1e6 / stream.size(),
                s.sys * 1e6 / stream.size());
  }
  return out;
}

// ------------------------------------------------------------- playback

struct Walked {
  double seconds = 0, bytes = 0;
  long steps = 0;
  std::int64_t digest = 0;  // of the chunks handed out, in order
  void Add(std::int64_t ms, int channel, double length) {
    ++steps;
    bytes += length;
    digest = digest * 1000003 + ms * 17 + channel;
  }
};

std::vector<unsigned char> g_payload(molra::kMaxChunkLength);

// Seeks molra to the minute of `ms`, any channel.
LONG MolraSeek(CMOLRA& player, std::int64_t ms, _tagCHUNKHDR* h) {
  *h = _tagCHUNKHDR{};
  h->stTime = ToStamp(ms - ms % 60000);
  h->chChannel = -1;
  return player.ReadDataEx(h, g_payload.data());
}

// Forward: from the first chunk of the minute of `fromMs` to the end.
// Backward: from the end (reached untimed) to the start.
Walked MolraWalk(CMOLRA& player, std::int64_t fromMs, bool forward) {
  _tagCHUNKHDR h;
  LONG rc = MolraSeek(player, fromMs, &h);
  if (rc != FS_OK) Fail("molra seek", rc);
  while (!forward && (rc = player.ReadNextDataEx(&h, g_payload.data())) == FS_OK) h.chChannel = -1;
  Walked w;
  const double start = Now();
  for (;;) {
    h.chChannel = -1;
    rc = forward ? player.ReadNextDataEx(&h, g_payload.data())
                 : player.ReadPrevDataEx(&h, g_payload.data());
    if (rc != FS_OK) break;
    w.Add(ToMillis(h.stTime), h.chChannel, sizeof h + h.dwLength);
  }
  w.seconds = Now() - start;
  if (rc != (forward ? FS_END_OF_DATA : FS_BEGIN_OF_DATA)) Fail("molra step", rc);
  return w;
}

Walked PeerWalk(SqlPeer& peer, std::int64_t fromMs, bool forward) {
  SqlPeer::Row row, next;
  if (!peer.From(fromMs - fromMs % 60000, &row)) Fail("peer seek");
  peer.Read(row, g_payload.data());
  while (!forward && peer.Next(row, &next)) row = next;
  Walked w;
  const double start = Now();
  while (forward ? peer.Next(row, &next) : peer.Prev(row, &next)) {
    row = next;
    w.Add(row.ms, row.channel, peer.Read(row, g_payload.data()));
  }
  w.seconds = Now() - start;
  return w;
}

// The chunks of every basket read front to back in 1 MiB requests.
Walked PlainRead(const std::string& store, const std::vector<_tagFSBSKINFO>& ring) {
  std::vector<unsigned char> block(1 << 20);
  Walked w;
  const double start = Now();
  for (const _tagFSBSKINFO& b : ring) {
    const int fd = ::open(RealPath(store, b.szPath, ".CDT").c_str(), O_RDONLY | O_CLOEXEC);
    _tagDATAHDR head{};
    if (fd < 0 || ::read(fd, &head, sizeof head) != sizeof head) Fail("plain read");
    for (DWORD left = head.dwWritePos - sizeof head; left > 0;) {
      const ssize_t got = ::read(fd, block.data(), std::min<DWORD>(left, 1 << 20));
      if (got <= 0) Fail("plain read");
      left -= static_cast<DWORD>(got);
      w.bytes += static_cast<double>(got);
    }
    ::close(fd);
  }
  w.seconds = Now() - start;
  return w;
}

// Key-frame skips `distance` seconds apart from the first chunk to the end.
Walked MolraSkips(CMOLRA& player, std::int64_t firstMs, int distance) {
  _tagCHUNKHDR h;
  MolraSeek(player, firstMs, &h);
  Walked w;
  LONG rc;
  const double start = Now();
  do {
    h.chChannel = -1;
    rc = player.ReadNextDataEx2(&h, g_payload.data(), distance);
    if (rc == FS_OK) w.Add(ToMillis(h.stTime), h.chChannel, sizeof h + h.dwLength);
  } while (rc == FS_OK || rc == FS_ERR_FILE);  // FS_ERR_FILE: the 4,800-node bound; go on
  w.seconds = Now() - start;
  if (rc != FS_END_OF_DATA) Fail("molra skip", rc);
  return w;
}

// The same deliveries through the peer's index: the first key frame at
// least `distance` whole seconds on, then those of the other channels in
// that second, once each.
Walked PeerSkips(SqlPeer& peer, std::int64_t firstMs, int distance) {
  SqlPeer::Row at, row;
  peer.From(firstMs - firstMs % 60000, &at);
  std::int64_t anchor = at.ms / 1000;
  bool hit[kChannels] = {};
  hit[at.channel] = true;
  Walked w;
  const double start = Now();
  while (peer.NextKey(0, &at, &row)) {
    if (row.ms / 1000 == anchor && hit[row.channel]) {
      at = row;
      continue;
    }
    // A jump: nothing before anchor + distance is delivered.
    if (row.ms / 1000 != anchor && row.ms / 1000 < anchor + distance &&
        !peer.NextKey((anchor + distance) * 1000, nullptr, &row)) {
      break;
    }
    at = row;
    if (row.ms / 1000 != anchor) {
      anchor = row.ms / 1000;
      std::fill(hit, hit + kChannels, false);
    }
    hit[row.channel] = true;
    w.Add(row.ms, row.channel, peer.Read(row, g_payload.data()));
  }
  w.seconds = Now() - start;
  return w;
}

template <typename F>
Walked Best(int runs, F&& run) {
  Walked best = run();
  for (int i = 1; i < runs; ++i) {
    const Walked w = run();
    if (w.seconds < best.seconds) best = w;
  }
  return best;
}

void PrintWalk(const char* name, const Walked& w) {
  char steps[32] = "-", rate[32] = "-";  // a plain pass has none
  if (w.steps > 0) std::snprintf(steps, sizeof steps, "%ld", w.steps);
  if (w.steps > 0) std::snprintf(rate, sizeof rate, "%.0f", w.steps / w.seconds);
  std::printf("  %-36s %8s %10s %9.1f %9.3f\n", name, steps, rate, w.bytes / 1e6 / w.seconds,
              w.seconds);
}

// molra against the peer on the same steps; against plain reads of the
// same bytes when given.
void Compare(const char* metric, const Walked& m, const Walked& p, const Walked* plain) {
  if (m.digest != p.digest || m.steps != p.steps) Fail("the same chunks from molra and the peer");
  Result("vs-peer", metric, p.seconds / m.seconds);
  AddGoal(std::string(metric) + ": x peer", p.seconds / m.seconds, 1.0, false);
  if (!plain) return;
  const double limit = (m.bytes / m.seconds) / (plain->bytes / plain->seconds);
  Result("vs-limit", metric, limit);
  AddGoal(std::string(metric) + ": x plain sequential read", limit, 0.8, false);
}

// The month, day and hour queries both ways, and whether the answers agree.
// The peer probes its indexes once per day, hour cell or minute.
void Queries(CMOLRA& player, SqlPeer& peer, std::int64_t hourMs, int runs) {
  const SYSTEMTIME t = ToStamp(hourMs);
  const std::int64_t day = hourMs - hourMs % 86400000;
  const std::int64_t month = day - (t.wDay - 1) * 86400000LL;
  const std::int64_t hour = hourMs - hourMs % 3600000;
  int days[31];
  DWORD cells[16 * 24], minutes[60];
  bool peerDays[31], peerCells[16 * 24], peerMinutes[60];
  const double ms[2][3] = {
      {MedianMs(runs, [&] { player.GetSaveDateInfo(t.wYear, t.wMonth, days, 31); }),
       MedianMs(runs,
                [&] { player.GetSaveTimeInfo(t.wYear, t.wMonth, t.wDay, 0, cells, nullptr); }),
       MedianMs(runs,
                [&] {
                  player.GetSaveMinuteInfo(t.wYear, t.wMonth, t.wDay, t.wHour, 0, 0, minutes, 0);
                })},
      {MedianMs(runs,
                [&] {
                  for (int d = 0; d < 31; ++d) {
                    const std::int64_t from = month + d * 86400000LL;
                    peerDays[d] =
                        ToStamp(from).wMonth == t.wMonth && peer.Any(-1, from, from + 86400000);
                  }
                }),
       MedianMs(runs,
                [&] {
                  for (int i = 0; i < 16 * 24; ++i) {
                    const std::int64_t from = day + i % 24 * 3600000LL;
                    peerCells[i] = peer.Any(i / 24, from, from + 3600000);
                  }
                }),
       MedianMs(runs, [&] {
         for (int m = 0; m < 60; ++m)
           peerMinutes[m] = peer.Any(0, hour + m * 60000LL, hour + (m + 1) * 60000LL);
       })}};
  bool agree = true;
  for (int d = 0; d < 31; ++d) agree = agree && (days[d] != 0) == peerDays[d];
  for (int i = 0; i < 16 * 24; ++i) agree = agree && (cells[i] != 0) == peerCells[i];
  for (int m = 0; m < 60; ++m) agree = agree && (minutes[m] != 0) == peerMinutes[m];
  if (!agree) Fail("the same answers from both stores' queries");
  std::printf(
      "\nqueries, median of %d; the peer probes its indexes once per day, hour cell or minute\n"
      "  %-8s %10s %10s %8s\n",
      runs, "ms", "molra", "peer", "x peer");
  const char* names[3] = {"month", "day", "hour"};
  for (int q = 0; q < 3; ++q) {
    std::printf("  %-8s %10.3f %10.3f %8.2f\n", names[q], ms[0][q], ms[1][q], ms[1][q] / ms[0][q]);
    Result("vs-peer", names[q], ms[1][q] / ms[0][q]);
  }
}

int Main(bool quick) {
  const int seconds = quick ? 40 : 90;
  const int runs = quick ? 5 : 15;  // median of, for seeks and queries
  const int best = quick ? 3 : 5;   // best of, for walks and skips
  char pattern[] = "/tmp/molra-bench-XXXXXX";
  if (!::mkdtemp(pattern)) Fail("making the work directory");
  g_base = pattern;
  TIME_ZONE_INFORMATION utc{};
  platform::SetTimeZone(&utc);
  const std::string store = g_base + "/molra";
  const std::int64_t startMs = ToMillis(SYSTEMTIME{2024, 5, 1, 20, 8, 59, 45, 0});
  const std::vector<Frame> stream = MakeStream(startMs, seconds, false);
  std::printf(
      "molra-bench%s: 16 channels at 30 fps for %d s (%zu frames): ~100 KB key frames every "
      "30th frame of a channel, ~10 KB frames between; zone UTC; files below %s\n"
      "peer: payloads appended to 64 MiB segment files shared by all channels, one SQLite row "
      "a frame (WAL, synchronous=NORMAL, indexes on stamp and on channel, stamp), a commit a "
      "frame; its queries use those indexes\n",
      quick ? " --quick" : "", seconds, stream.size(), g_base.c_str());

  std::printf(
      "\nsaving, in 24 slices each way takes in turn frames/s     MB/s  seconds cpu us/save   user "
      "   sys\n");
  ::mkdir((g_base + "/peer").c_str(), 0777);
  SqlPeer peer(g_base + "/peer");
  const std::vector<Saved> saved = SaveAll(stream, store, &peer);
  const std::vector<Frame> big = MakeStream(startMs, quick ? 3 : 6, true);
  std::printf("  100 KB frames alone (%zu):\n", big.size());
  const std::vector<Saved> saved100 = SaveAll(big, g_base + "/molra-100k", nullptr);
  std::error_code ignored;
  fs::remove_all(g_base + "/molra-100k", ignored);
  UseDrives(store);
  Result("vs-peer", "save", saved[2].wall / saved[1].wall);
  Result("vs-limit", "save", saved[0].wall / saved[1].wall);
  Result("vs-limit", "save-100k", saved100[0].wall / saved100[1].wall);
  AddGoal("save: x peer", saved[2].wall / saved[1].wall, 1.0, false);
  AddGoal("save: x plain append, mixed frames", saved[0].wall / saved[1].wall, 0.5, false);
  AddGoal("save-100k: x plain append", saved100[0].wall / saved100[1].wall, 0.9, false);
  AddGoal("save: cpu us per save (user + sys)",
          (saved[1].user + saved[1].sys) * 1e6 / stream.size(), 5, true);

  SyncDisk();  // no writeback left to run while reads are timed
  const std::vector<_tagFSBSKINFO> ring = RingRecords(store);
  CMOLRA player;
  LONG rc = player.OpenFS(1);
  if (rc != FS_OK) Fail("OpenFS(1)", rc);
  std::printf("\nsteps through all %zu baskets, best of %d   steps    steps/s      MB/s   seconds\n",
              ring.size(), best);
  Walked m = Best(best, [&] { return MolraWalk(player, startMs, true); });
  Walked p = Best(best, [&] { return PeerWalk(peer, startMs, true); });
  Walked plain = Best(best, [&] { return PlainRead(store, ring); });
  PrintWalk("forward, warm: molra", m);
  PrintWalk("forward, warm: peer", p);
  PrintWalk("forward, warm: plain 1 MiB reads", plain);
  Compare("step-warm", m, p, &plain);
  const Walked mb = Best(best, [&] { return MolraWalk(player, stream.back().ms, false); });
  const Walked pb = Best(best, [&] { return PeerWalk(peer, stream.back().ms, false); });
  PrintWalk("backward, warm: molra", mb);
  PrintWalk("backward, warm: peer", pb);
  if (mb.digest != pb.digest || mb.steps != pb.steps) Fail("the same chunks stepping back");
  std::printf("  %-36s %8.2f (no goal)\n", "backward: x peer", pb.seconds / mb.seconds);
  // Cold: a store's files dropped from the page cache before each run.
  const auto cold = [&](int way) {
    if (way == 2) {
      peer.Close();
      DropTree(g_base + "/peer", true);  // with its last checkpoint
      peer.Open();
      return PeerWalk(peer, startMs, true);
    }
    player.CloseFS();
    DropTree(store);
    if ((rc = player.OpenFS(1)) != FS_OK) Fail("OpenFS(1)", rc);
    return way == 0 ? MolraWalk(player, startMs, true) : PlainRead(store, ring);
  };
  m = Best(best, [&] { return cold(0); });
  plain = Best(best, [&] { return cold(1); });
  p = Best(best, [&] { return cold(2); });
  PrintWalk("forward, cold: molra", m);
  PrintWalk("forward, cold: peer", p);
  PrintWalk("forward, cold: plain 1 MiB reads", plain);
  Compare("step-cold", m, p, &plain);

  // Seeks to each minute that begins inside the recording.
  std::vector<double> molraSeek, peerSeek;
  for (int r = 0; r < runs; ++r) {
    for (std::int64_t minute = startMs / 60000 * 60000 + 60000; minute < stream.back().ms;
         minute += 60000) {
      _tagCHUNKHDR h;
      SqlPeer::Row row;
      bool found = false;
      molraSeek.push_back(Timed([&] { rc = MolraSeek(player, minute, &h); }));
      peerSeek.push_back(Timed([&] {
        if ((found = peer.From(minute, &row) && row.ms < minute + 60000))
          peer.Read(row, g_payload.data());
      }));
      if (rc != FS_OK || !found || ToMillis(h.stTime) != row.ms || h.chChannel != row.channel) {
        Fail("the same chunk from both seeks", rc);
      }
    }
  }
  const double seek = Median(peerSeek) / Median(molraSeek);
  std::printf("\nseeks to a minute (%zu), median ms: molra %.3f, peer %.3f, x peer %.2f\n",
              molraSeek.size(), Median(molraSeek) * 1e3, Median(peerSeek) * 1e3, seek);
  Result("vs-peer", "seek", seek);
  AddGoal("seek: x peer", seek, 1.0, false);

  std::printf("\nkey-frame skips 10 s apart, best of %-3d chunks   chunks/s      MB/s   seconds\n",
              4 * best);
  const Walked ms = Best(4 * best, [&] { return MolraSkips(player, startMs, 10); });
  const Walked ps = Best(4 * best, [&] { return PeerSkips(peer, startMs, 10); });
  PrintWalk("molra ReadNextDataEx2", ms);
  PrintWalk("peer: indexed jumps", ps);
  Compare("skip", ms, ps, nullptr);

  Queries(player, peer, startMs + 60000, runs);
  player.CloseFS();
  peer.Close();

  std::int64_t span = 0;  // of a full basket: all but the last are
  for (size_t i = 0; i + 1 < ring.size(); ++i)
    span += ToMillis(ring[i + 1].stFirst) - ToMillis(ring[i].stFirst);
  RunScale({store, ring, span / static_cast<std::int64_t>(std::max<size_t>(ring.size() - 1, 1)),
            g_base + "/scale", quick});

  std::printf("\ngoals\n");
  for (const std::string& line : g_goals) std::printf("%s\n", line.c_str());
  std::printf("\n");
  for (const std::string& line : g_lines) std::printf("%s\n", line.c_str());
  fs::remove_all(g_base, ignored);
  return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const bool quick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
  if (argc > 2 || (argc == 2 && !quick)) {
    std::fprintf(stderr, "usage: molra-bench [--quick]\n");
    return 2;
  }
  return bench::Main(quick);
}
