// Times playback from a ring of three baskets that recording left with one
// basket full and the next one part filled: 16 channels of video-like
// frames, 4 a second per channel, a ~100 KB key frame every 30th frame of
// a channel among ~10 KB frames. It times minute and second seeks near the
// end of the full basket, forward steps through that basket for any channel
// and for one, and key-frame skips over the whole recording, beside plain
// reads of the same bytes from the basket's data file. Everything runs with
// the page cache warm; then a seek, the step walk and the plain pass run
// again after the files' cached pages were dropped.
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

#include "molra/molra.h"

namespace {

constexpr int kChannels = 16;
constexpr int kFps = 4;         // frames a second of one channel
constexpr int kGop = 30;        // frames from one key frame of a channel to the next
constexpr int kFrames = 8000;   // about 1.6 baskets
constexpr int kSeekRuns = 15;
constexpr signed char kWalkChannel = 5;
constexpr DWORD kKeyFrame = 0x10000;

[[noreturn]] void Fail(const char* what, LONG result) {
  std::fprintf(stderr, "%s failed (%ld)\n", what, static_cast<long>(result));
  std::exit(1);
}

double CpuSeconds() {
  struct timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
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

double MedianMs(std::vector<double> seconds) {
  std::sort(seconds.begin(), seconds.end());
  return seconds[seconds.size() / 2] * 1e3;
}

// Records the stream in order. Each channel's encoder keeps its own beat,
// so key frames of different channels fall half a second apart.
void Record(const std::vector<BYTE>& payload) {
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
    result = store.SaveData(&h, const_cast<BYTE*>(payload.data()), &remaining, 0);
    if (result != FS_OK) Fail("SaveData", result);
  }
  store.CloseFS();
}

// A chunk as the data file holds it.
struct Chunk {
  DWORD offset;
  _tagCHUNKHDR header;
};

// The chunks of a data file, from its head's write position.
std::vector<Chunk> ScanChunks(const std::string& path, DWORD* end) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  _tagDATAHDR head{};
  if (fd < 0 || ::pread(fd, &head, sizeof head, 0) != static_cast<ssize_t>(sizeof head)) {
    Fail("reading the data file head", 0);
  }
  std::vector<Chunk> chunks;
  for (DWORD at = sizeof head; at < head.dwWritePos;) {
    Chunk c{at, {}};
    if (::pread(fd, &c.header, sizeof c.header, at) != static_cast<ssize_t>(sizeof c.header)) break;
    chunks.push_back(c);
    at += static_cast<DWORD>(sizeof c.header) + c.header.dwLength;
  }
  ::close(fd);
  *end = head.dwWritePos;
  return chunks;
}

// Plain reads of chunks by their offsets: header, then payload.
double PlainChunks(const std::string& path, const std::vector<const Chunk*>& chunks,
                   unsigned char* payload) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  double bytes = 0;
  _tagCHUNKHDR h;
  for (const Chunk* c : chunks) {
    if (::pread(fd, &h, sizeof h, c->offset) != static_cast<ssize_t>(sizeof h) ||
        ::pread(fd, payload, h.dwLength, c->offset + sizeof h) != static_cast<ssize_t>(h.dwLength)) {
      Fail("plain chunk read", 0);
    }
    bytes += sizeof h + h.dwLength;
  }
  ::close(fd);
  return bytes;
}

// One pass of 1 MiB reads over [begin, end) of a file; `buffer` holds 1 MiB.
double PlainPass(const std::string& path, DWORD begin, DWORD end, unsigned char* buffer) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  double bytes = 0;
  ::lseek(fd, begin, SEEK_SET);
  for (DWORD left = end - begin; left > 0;) {
    const ssize_t got = ::read(fd, buffer, std::min<DWORD>(left, 1 << 20));
    if (got <= 0) Fail("plain pass", 0);
    left -= static_cast<DWORD>(got);
    bytes += static_cast<double>(got);
  }
  ::close(fd);
  return bytes;
}

// Writes back and drops the cached pages of every file of the store's drive.
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
  void* map = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  ::close(fd);
  if (map == MAP_FAILED) return -1;
  const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  std::vector<unsigned char> in((size + page - 1) / page);
  ::mincore(map, size, in.data());
  ::munmap(map, size);
  return 100.0 * static_cast<double>(std::count_if(in.begin(), in.end(), [](unsigned char b) {
           return (b & 1) != 0;
         })) / static_cast<double>(in.size());
}

void Row(const char* name, long items, double bytes, const Span& s, const char* note = "") {
  std::printf("%-36s %7ld %10.0f %8.1f %9.2f  %s\n", name, items, items / s.wall,
              bytes / 1e6 / s.wall, s.cpu * 1e6 / static_cast<double>(items), note);
}

_tagCHUNKHDR Ask(SYSTEMTIME at, signed char channel) {
  _tagCHUNKHDR h{};
  h.stTime = at;
  h.chChannel = channel;
  return h;
}

// Seeks to the first minute of the full basket, then steps `steps` times.
Span Walk(CMOLRA& player, const SYSTEMTIME& first, signed char channel, long steps,
          unsigned char* payload, double* bytes, _tagCHUNKHDR* last) {
  _tagCHUNKHDR h = Ask(first, channel);
  h.stTime.wSecond = h.stTime.wMilliseconds = 0;
  LONG result = player.ReadDataEx(&h, payload);
  if (result != FS_OK) Fail("seek to the first minute", result);
  *bytes = 0;
  const Span span = Time([&] {
    for (long i = 0; i < steps; ++i) {
      h.chChannel = channel;  // a step hands back the whole header
      if ((result = player.ReadNextDataEx(&h, payload)) != FS_OK) Fail("ReadNextDataEx", result);
      *bytes += sizeof h + h.dwLength;
    }
  });
  *last = h;
  return span;
}

bool SameChunk(const _tagCHUNKHDR& a, const _tagCHUNKHDR& b) {
  return std::memcmp(&a.stTime, &b.stTime, sizeof a.stTime) == 0 && a.chChannel == b.chChannel;
}

}  // namespace

int main(int argc, char** argv) {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(argc > 1 ? argv[1] : tmp ? tmp : "/tmp") +
                        "/molra-bench-playback-XXXXXX";
  if (!mkdtemp(pattern.data())) return 1;
  const std::string base = pattern;
  TIME_ZONE_INFORMATION utc{};
  molra::platform::SetTimeZone(&utc);
  for (char letter = 'a'; letter <= 'z'; ++letter) {
    molra::platform::SetDriveRoot(letter, base + "/" + letter);
  }
  std::vector<BYTE> recorded(120000);
  for (size_t i = 0; i < recorded.size(); ++i) recorded[i] = static_cast<BYTE>(i * 7);
  Record(recorded);

  CMOLRA player;
  LONG result = player.OpenFS(1);
  if (result != FS_OK) Fail("OpenFS(1)", result);
  _tagFSBSKINFO full{};
  _tagFSBSKINFO next{};
  if (player.GetFSInfo()->dwCurrent != 1 || player.GetBaksetInfo(0, &full) != FS_OK ||
      player.GetBaksetInfo(1, &next) != FS_OK || next.dwChunks == 0) {
    Fail("a full basket 0 and a part-filled basket 1", 0);
  }
  const std::string dir = base + "/d/MOLRA";
  const std::string data = dir + "/" + (std::strrchr(full.szPath, '\\') + 1) + ".CDT";
  DWORD end = 0;
  const std::vector<Chunk> chunks = ScanChunks(data, &end);
  std::vector<unsigned char> payload(molra::kMaxChunkLength);
  std::vector<unsigned char> block(1 << 20);
  std::vector<const Chunk*> all;
  std::vector<const Chunk*> one;
  for (const Chunk& c : chunks) {
    all.push_back(&c);
    if (c.header.chChannel == kWalkChannel) one.push_back(&c);
  }
  const SYSTEMTIME a = full.stFirst;
  const SYSTEMTIME z = full.stLast;
  std::printf("store: 3 baskets in %s; basket 0 full: %zu chunks (catalogue %u), %.1f MB, "
              "%02d:%02d:%02d-%02d:%02d:%02d; basket 1: %u chunks\n",
              dir.c_str(), chunks.size(), static_cast<unsigned>(full.dwChunks), end / 1e6,
              a.wHour, a.wMinute, a.wSecond, z.wHour, z.wMinute, z.wSecond,
              static_cast<unsigned>(next.dwChunks));

  // Seeks near the end of the full basket, and a plain open and read of
  // the chunk each one lands on.
  const auto seeks = [&](const char* state, int runs) {
    char title[64];
    std::snprintf(title, sizeof title, "seeks, %s, median of %d", state, runs);
    std::printf("\n%-52s %8s %10s\n", title, "store ms", "plain ms");
    for (const bool toSecond : {false, true}) {
      SYSTEMTIME at = z;
      at.wMilliseconds = 0;
      at.wSecond = toSecond ? (at.wSecond > 0 ? at.wSecond - 1 : 0) : 0;
      std::vector<double> store;
      std::vector<double> plain;
      _tagCHUNKHDR h{};
      for (int run = 0; run < runs; ++run) {
        if (run == 0 && runs == 1) DropCache(dir);
        h = Ask(at, -1);
        store.push_back(Time([&] {
          result = toSecond ? player.ReadDataEx2(&h, payload.data())
                            : player.ReadDataEx(&h, payload.data());
        }).wall);
        if (result != FS_OK) Fail("seek", result);
      }
      const auto found = std::find_if(all.begin(), all.end(),
                                      [&](const Chunk* c) { return SameChunk(c->header, h); });
      if (found == all.end()) Fail("the seek's chunk in the full basket", 0);
      for (int run = 0; run < runs; ++run) {
        if (run == 0 && runs == 1) DropCache(dir);
        plain.push_back(Time([&] { PlainChunks(data, {*found}, payload.data()); }).wall);
      }
      char name[96];
      std::snprintf(name, sizeof name, "%s %02d:%02d:%02d -> chunk %ld of %zu",
                    toSecond ? "ReadDataEx2" : "ReadDataEx ", at.wHour, at.wMinute, at.wSecond,
                    static_cast<long>(found - all.begin()) + 1, all.size());
      std::printf("%-52s %8.3f %10.3f\n", name, MedianMs(store), MedianMs(plain));
    }
  };

  const auto heading = [](const char* state) {
    char title[64];
    std::snprintf(title, sizeof title, "steps through basket 0, %s", state);
    std::printf("\n%-36s %7s %10s %8s %9s\n", title, "chunks", "chunks/s", "MB/s", "cpu us/1");
  };
  const auto stepWalk = [&](bool cold) {
    double bytes = 0;
    _tagCHUNKHDR last{};
    if (cold) DropCache(dir);
    Span span = Walk(player, a, -1, static_cast<long>(all.size()) - 1, payload.data(), &bytes,
                     &last);
    Row("ReadNextDataEx, any channel", static_cast<long>(all.size()) - 1, bytes, span,
        SameChunk(last, chunks.back().header) ? "" : "(ended on another chunk!)");
    if (cold) DropCache(dir);
    span = Time([&] { bytes = PlainPass(data, all[1]->offset, end, block.data()); });
    Row("plain 1 MiB reads of the same bytes", static_cast<long>(all.size()) - 1, bytes, span);
    if (cold) return;
    const std::vector<const Chunk*> stepped(all.begin() + 1, all.end());
    span = Time([&] { bytes = PlainChunks(data, stepped, payload.data()); });
    Row("plain pread header + payload", static_cast<long>(stepped.size()), bytes, span);
  };

  std::printf("\npage cache: warm, basket 0 data file %.0f%% resident\n", Resident(data));
  seeks("warm", kSeekRuns);
  heading("warm");
  stepWalk(false);
  {
    double bytes = 0;
    _tagCHUNKHDR last{};
    const long steps = static_cast<long>(one.size()) - 1;
    const Span span = Walk(player, a, kWalkChannel, steps, payload.data(), &bytes, &last);
    const long nodes = static_cast<long>(one.back() - one.front());
    char note[96];
    std::snprintf(note, sizeof note, "%.0f index nodes/s%s", nodes / span.wall,
                  SameChunk(last, one.back()->header) ? "" : " (ended on another chunk!)");
    Row("ReadNextDataEx, channel 5", steps, bytes, span, note);
    const std::vector<const Chunk*> stepped(one.begin() + 1, one.end());
    Row("plain pread of the channel's chunks", steps, bytes,
        Time([&] { PlainChunks(data, stepped, payload.data()); }));
  }

  std::printf("\n%-36s %7s %10s %8s %9s %9s\n", "key-frame skips, start to end", "calls",
              "calls/s", "chunks", "nodes/s", "cpu us/1");
  for (const int distance : {10, 1}) {
    _tagCHUNKHDR h = Ask(a, -1);
    h.stTime.wSecond = h.stTime.wMilliseconds = 0;
    if ((result = player.ReadDataEx(&h, payload.data())) != FS_OK) Fail("seek", result);
    long calls = 0;
    long delivered = 0;
    const Span span = Time([&] {
      do {
        h.chChannel = -1;
        result = player.ReadNextDataEx2(&h, payload.data(), distance);
        ++calls;
        if (result == FS_OK) ++delivered;
      } while ((result == FS_OK || result == FS_ERR_FILE) && calls < 1000000);
    });
    const double nodes = static_cast<double>(full.dwChunks + next.dwChunks - 1);
    char name[64];
    std::snprintf(name, sizeof name, "ReadNextDataEx2, distance %d s%s", distance,
                  result == FS_END_OF_DATA ? "" : " (no end!)");
    std::printf("%-36s %7ld %10.0f %8ld %9.0f %9.2f\n", name, calls, calls / span.wall,
                delivered, nodes / span.wall, span.cpu * 1e6 / static_cast<double>(calls));
  }

  DropCache(dir);
  std::printf("\npage cache: dropped (fdatasync + POSIX_FADV_DONTNEED), basket 0 data file "
              "%.0f%% resident\n", Resident(data));
  seeks("cold", 1);
  heading("cold");
  stepWalk(true);

  player.CloseFS();
  std::error_code ignored;
  std::filesystem::remove_all(base, ignored);
  return 0;
}
