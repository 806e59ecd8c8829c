// Times playback from a ring of three baskets that recording left with one
// basket full and the next one part filled: 16 channels of video-like
// frames, 4 a second per channel, a ~100 KB key frame every 30th frame of
// a channel among ~10 KB frames. It times minute and second seeks near the
// end of the full basket, forward steps through that basket for any channel
// and for one, and key-frame skips over the whole recording, beside plain
// reads of the same bytes from the basket's data file. Everything runs with
// the page cache warm; then the seeks, the step walk and the plain pass run
// again after the store's cached pages were dropped.
//
//   molra-bench-playback [directory for the store, default $TMPDIR or /tmp]
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "cpu_time.h"
#include "molra/molra.h"

namespace {

constexpr int kChannels = 16;
constexpr int kFps = 4;        // frames a second of one channel
constexpr int kGop = 30;       // frames from one key frame of a channel to the next
constexpr int kFrames = 8000;  // about 1.6 baskets
constexpr int kSeekRuns = 15;
constexpr signed char kWalkChannel = 5;
constexpr DWORD kKeyFrame = 0x10000;

[[noreturn]] void Fail(const char* what, LONG result) {
  std::fprintf(stderr, "%s failed (%ld)\n", what, static_cast<long>(result));
  std::exit(1);
}

struct Span {
  double wall = 0;
  double cpu = 0;
};

template <typename F>
Span Time(F&& work) {
  const double cpu = CpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  work();
  return {std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
          CpuSeconds() - cpu};
}

void Row(const char* name, long items, double bytes, const Span& s, const char* note = "") {
  std::printf("%-36s %7ld %10.0f %8.1f %9.2f  %s\n", name, items, items / s.wall,
              bytes / 1e6 / s.wall, s.cpu * 1e6 / static_cast<double>(items), note);
}

// Records the stream in order. Each channel's encoder keeps its own beat,
// so key frames of different channels fall half a second apart.
void Record() {
  std::vector<BYTE> payload(120000);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<BYTE>(i * 7);
  CMOLRA store;
  _tagBSKLOC drive{3, 3};
  LONG result = store.CreateFS(&drive, 1);
  if (result != FS_OK || (result = store.OpenFS(0)) != FS_OK) Fail("making the store", result);
  std::uint32_t noise = 12345;
  for (int i = 0; i < kFrames; ++i) {
    const int channel = i % kChannels;
    const int frame = i / kChannels;
    noise = noise * 1103515245u + 12345u;
    const bool key = (frame + 2 * channel) % kGop == 0;
    const long ms = frame * 1000L / kFps + channel;
    _tagCHUNKHDR h{};
    h.byTag = 1;
    h.stTime = SYSTEMTIME{2010, 11, 4, 18, static_cast<WORD>(9 + ms / 3600000),
                          static_cast<WORD>(ms / 60000 % 60), static_cast<WORD>(ms / 1000 % 60),
                          static_cast<WORD>(ms % 1000)};
    h.chChannel = static_cast<signed char>(channel);
    h.dwInfo = key ? kKeyFrame : 0;
    h.dwLength = (key ? 100000 : 10000) + (noise >> 16) % (key ? 8000 : 2000);
    DWORD remaining = 0;
    if ((result = store.SaveData(&h, payload.data(), &remaining, 0)) != FS_OK) {
      Fail("SaveData", result);
    }
  }
  store.CloseFS();
}

// A chunk as the data file holds it.
struct Chunk {
  DWORD offset;
  _tagCHUNKHDR header;
};

bool SameChunk(const _tagCHUNKHDR& a, const _tagCHUNKHDR& b) {
  return std::memcmp(&a.stTime, &b.stTime, sizeof a.stTime) == 0 && a.chChannel == b.chChannel;
}

// Plain reads, header then payload, of the chunks of [from, to) on a
// channel (-1: all).
double PlainChunks(const std::string& path, const Chunk* from, const Chunk* to,
                   signed char channel, unsigned char* payload) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  double bytes = 0;
  _tagCHUNKHDR h;
  for (const Chunk* c = from; c != to; ++c) {
    if (channel != -1 && c->header.chChannel != channel) continue;
    if (::pread(fd, &h, sizeof h, c->offset) != static_cast<ssize_t>(sizeof h) ||
        ::pread(fd, payload, h.dwLength, c->offset + sizeof h) !=
            static_cast<ssize_t>(h.dwLength)) {
      Fail("plain chunk read", 0);
    }
    bytes += sizeof h + h.dwLength;
  }
  ::close(fd);
  return bytes;
}

// Writes back and drops the cached pages of every file in `dir`.
void DropCache(const std::string& dir) {
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const int fd = ::open(entry.path().c_str(), O_RDONLY);
    if (fd < 0) continue;
    ::fdatasync(fd);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    ::close(fd);
  }
}

// The share of a file's pages in the page cache, in percent.
double Resident(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  const size_t size = static_cast<size_t>(::lseek(fd, 0, SEEK_END));
  const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  void* map = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  ::close(fd);
  std::vector<unsigned char> in((size + page - 1) / page);
  if (map == MAP_FAILED || ::mincore(map, size, in.data()) != 0) return -1;
  ::munmap(map, size);
  return 100.0 * static_cast<double>(std::count_if(in.begin(), in.end(), [](unsigned char b) {
           return b & 1;
         })) / static_cast<double>(in.size());
}

// The player, the full basket 0 and its chunks as its data file holds them.
struct Bench {
  CMOLRA player;
  std::string dir;   // the baskets' directory
  std::string data;  // basket 0's data file
  _tagFSBSKINFO full{};
  _tagFSBSKINFO next{};
  std::vector<Chunk> chunks;
  DWORD end = 0;  // of basket 0's chunks in its data file
  std::vector<unsigned char> payload = std::vector<unsigned char>(molra::kMaxChunkLength);

  // Seeks to the first minute of basket 0, then steps `steps` times.
  Span Walk(signed char channel, long steps, double* bytes, _tagCHUNKHDR* h) {
    *h = _tagCHUNKHDR{};
    h->stTime = full.stFirst;
    h->stTime.wSecond = h->stTime.wMilliseconds = 0;
    h->chChannel = channel;
    LONG result = player.ReadDataEx(h, payload.data());
    if (result != FS_OK) Fail("seek to the first minute", result);
    *bytes = 0;
    return Time([&] {
      for (long i = 0; i < steps; ++i) {
        h->chChannel = channel;  // a step hands back the whole header
        if ((result = player.ReadNextDataEx(h, payload.data())) != FS_OK) {
          Fail("ReadNextDataEx", result);
        }
        *bytes += sizeof *h + h->dwLength;
      }
    });
  }

  // A minute and a second seek near the end of basket 0, and a plain open
  // and read of the chunk each lands on.
  void Seeks(bool cold) {
    const int runs = cold ? 1 : kSeekRuns;
    char name[96];
    std::snprintf(name, sizeof name, "seeks, %s, median of %d", cold ? "cold" : "warm", runs);
    std::printf("\n%-52s %8s %10s\n", name, "store ms", "plain ms");
    for (const bool toSecond : {false, true}) {
      _tagCHUNKHDR h{};
      std::vector<double> store;
      std::vector<double> plain;
      for (int run = 0; run < runs; ++run) {
        if (cold) DropCache(dir);
        h = _tagCHUNKHDR{};
        h.stTime = full.stLast;  // its second too may open basket 1: one before
        h.stTime.wSecond = toSecond && h.stTime.wSecond > 0 ? h.stTime.wSecond - 1 : 0;
        h.stTime.wMilliseconds = 0;
        h.chChannel = -1;
        LONG result = FS_OK;
        store.push_back(Time([&] {
          result = toSecond ? player.ReadDataEx2(&h, payload.data())
                            : player.ReadDataEx(&h, payload.data());
        }).wall);
        if (result != FS_OK) Fail("seek", result);
      }
      const auto found = std::find_if(chunks.begin(), chunks.end(),
                                      [&](const Chunk& c) { return SameChunk(c.header, h); });
      if (found == chunks.end()) Fail("the seek's chunk in basket 0", 0);
      const Chunk* at = &*found;
      for (int run = 0; run < runs; ++run) {
        if (cold) DropCache(dir);
        plain.push_back(Time([&] { PlainChunks(data, at, at + 1, -1, payload.data()); }).wall);
      }
      std::sort(store.begin(), store.end());
      std::sort(plain.begin(), plain.end());
      std::snprintf(name, sizeof name, "%s to %02d:%02d:%02d: chunk %ld of %zu",
                    toSecond ? "ReadDataEx2" : "ReadDataEx ", h.stTime.wHour, h.stTime.wMinute,
                    h.stTime.wSecond, static_cast<long>(at - chunks.data()) + 1, chunks.size());
      std::printf("%-52s %8.3f %10.3f\n", name, store[store.size() / 2] * 1e3,
                  plain[plain.size() / 2] * 1e3);
    }
  }

  // Every chunk of basket 0 behind the first: steps, then plain reads.
  void Steps(bool cold) {
    std::printf("\nsteps through basket 0, %-12s %7s %10s %8s %9s\n", cold ? "cold" : "warm",
                "chunks", "chunks/s", "MB/s", "cpu us/1");
    const long steps = static_cast<long>(chunks.size()) - 1;
    double bytes = 0;
    _tagCHUNKHDR last{};
    if (cold) DropCache(dir);
    Span span = Walk(-1, steps, &bytes, &last);
    Row("ReadNextDataEx, any channel", steps, bytes, span,
        SameChunk(last, chunks.back().header) ? "" : "(ended on another chunk!)");
    if (cold) DropCache(dir);
    std::vector<unsigned char> block(1 << 20);
    span = Time([&] {
      const int fd = ::open(data.c_str(), O_RDONLY);
      ::lseek(fd, chunks[1].offset, SEEK_SET);
      for (DWORD left = end - chunks[1].offset; left > 0;) {
        const ssize_t got = ::read(fd, block.data(), std::min<DWORD>(left, 1 << 20));
        if (got <= 0) Fail("plain pass", 0);
        left -= static_cast<DWORD>(got);
      }
      ::close(fd);
    });
    Row("plain 1 MiB reads of the same bytes", steps, end - chunks[1].offset, span);
    if (cold) return;
    const Chunk* const first = chunks.data() + 1;
    span = Time([&] { bytes = PlainChunks(data, first, first + steps, -1, payload.data()); });
    Row("plain pread header + payload", steps, bytes, span);
  }

  // The chunks of one channel in basket 0: every index node between them
  // is passed over.
  void ChannelWalk() {
    const Chunk* first = nullptr;
    const Chunk* last = nullptr;
    long steps = -1;
    for (const Chunk& c : chunks) {
      if (c.header.chChannel != kWalkChannel) continue;
      if (!first) first = &c;
      last = &c;
      ++steps;
    }
    double bytes = 0;
    _tagCHUNKHDR h{};
    Span span = Walk(kWalkChannel, steps, &bytes, &h);
    char note[64];
    std::snprintf(note, sizeof note, "%.0f index nodes/s%s", (last - first) / span.wall,
                  SameChunk(h, last->header) ? "" : " (ended on another chunk!)");
    Row("ReadNextDataEx, channel 5", steps, bytes, span, note);
    span = Time([&] {
      bytes = PlainChunks(data, first + 1, last + 1, kWalkChannel, payload.data());
    });
    Row("plain pread of the channel's chunks", steps, bytes, span);
  }

  // Key-frame skips from the first minute to the end of basket 1.
  void Skips() {
    std::printf("\n%-36s %7s %10s %8s %9s\n", "key-frame skips, start to end", "calls",
                "calls/s", "MB/s", "cpu us/1");
    for (const int distance : {10, 1}) {
      double bytes = 0;
      _tagCHUNKHDR h{};
      Walk(-1, 0, &bytes, &h);
      long calls = 0;
      long delivered = 0;
      LONG result = FS_OK;
      const Span span = Time([&] {
        do {
          h.chChannel = -1;
          result = player.ReadNextDataEx2(&h, payload.data(), distance);
          ++calls;
          if (result == FS_OK) {
            ++delivered;
            bytes += sizeof h + h.dwLength;
          }
          // FS_ERR_FILE: the walk stopped at its bound and goes on.
        } while ((result == FS_OK || result == FS_ERR_FILE) && calls < 1000000);
      });
      char name[64];
      char note[64];
      std::snprintf(name, sizeof name, "ReadNextDataEx2, distance %d s", distance);
      std::snprintf(note, sizeof note, "%ld chunks, %.0f index nodes/s%s", delivered,
                    (full.dwChunks + next.dwChunks - 1) / span.wall,
                    result == FS_END_OF_DATA ? "" : " (no end!)");
      Row(name, calls, bytes, span, note);
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  const char* tmp = std::getenv("TMPDIR");
  std::string base = std::string(argc > 1 ? argv[1] : tmp ? tmp : "/tmp") +
                     "/molra-bench-playback-XXXXXX";
  if (!mkdtemp(base.data())) return 1;
  TIME_ZONE_INFORMATION utc{};
  molra::platform::SetTimeZone(&utc);
  for (char letter = 'a'; letter <= 'z'; ++letter) {
    molra::platform::SetDriveRoot(letter, base + "/" + letter);
  }
  Record();

  Bench bench;
  const LONG result = bench.player.OpenFS(1);
  if (result != FS_OK) Fail("OpenFS(1)", result);
  if (bench.player.GetFSInfo()->dwCurrent != 1 ||
      bench.player.GetBaksetInfo(0, &bench.full) != FS_OK ||
      bench.player.GetBaksetInfo(1, &bench.next) != FS_OK || bench.next.dwChunks == 0) {
    Fail("a full basket 0 and a part-filled basket 1", 0);
  }
  bench.dir = base + "/d/MOLRA";
  bench.data = bench.dir + "/" + (std::strrchr(bench.full.szPath, '\\') + 1) + ".CDT";
  // Basket 0's chunks, read from its data file as the head bounds them.
  const int fd = ::open(bench.data.c_str(), O_RDONLY);
  _tagDATAHDR head{};
  if (fd < 0 || ::pread(fd, &head, sizeof head, 0) != static_cast<ssize_t>(sizeof head)) {
    Fail("reading the data file head", 0);
  }
  bench.end = head.dwWritePos;
  for (DWORD at = sizeof head; at < head.dwWritePos;) {
    Chunk c{at, {}};
    if (::pread(fd, &c.header, sizeof c.header, at) != static_cast<ssize_t>(sizeof c.header)) break;
    bench.chunks.push_back(c);
    at += static_cast<DWORD>(sizeof c.header) + c.header.dwLength;
  }
  ::close(fd);

  const SYSTEMTIME a = bench.full.stFirst;
  const SYSTEMTIME z = bench.full.stLast;
  std::printf("store: 3 baskets in %s\nbasket 0 full: %zu chunks (catalogue %u), %.1f MB, "
              "%02d:%02d:%02d-%02d:%02d:%02d; basket 1: %u chunks\n",
              bench.dir.c_str(), bench.chunks.size(), static_cast<unsigned>(bench.full.dwChunks),
              bench.end / 1e6, a.wHour, a.wMinute, a.wSecond, z.wHour, z.wMinute, z.wSecond,
              static_cast<unsigned>(bench.next.dwChunks));

  std::printf("\npage cache: warm, basket 0 data file %.0f%% resident\n", Resident(bench.data));
  bench.Seeks(false);
  bench.Steps(false);
  bench.ChannelWalk();
  bench.Skips();
  DropCache(bench.dir);
  std::printf("\npage cache: dropped (fdatasync, POSIX_FADV_DONTNEED) before each run; now "
              "%.0f%% resident\n", Resident(bench.data));
  bench.Seeks(true);
  bench.Steps(true);

  bench.player.CloseFS();
  std::error_code ignored;
  std::filesystem::remove_all(base, ignored);
  return 0;
}
