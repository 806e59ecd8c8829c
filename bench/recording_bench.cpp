// Times recording: 16 channels of video-like frames (a ~100 KB key frame
// every 30th frame among ~10 KB frames) saved through the store, for more
// than two baskets' worth so that a full basket rolls over, against the
// same bytes appended to a plain file on the same file system.
#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "cpu_time.h"
#include "molra/molra.h"
#include "molra/platform.h"
#include "platform/env.h"

namespace {

constexpr int kChannels = 16;
constexpr int kFps = 30;
constexpr DWORD kKeyFrame = 0x10000;

struct Frame {
  _tagCHUNKHDR header;
  DWORD length;
};

// Frames in recording order: each channel's frames 1/30 s apart, with
// sizes that vary a little around the typical ones.
std::vector<Frame> MakeStream(int frames) {
  std::vector<Frame> stream;
  std::uint32_t noise = 12345;
  for (int i = 0; i < frames; ++i) {
    const int channel = i % kChannels;
    const int frame = i / kChannels;
    noise = noise * 1103515245u + 12345u;
    const bool key = frame % kFps == 0;
    const DWORD length = (key ? 100000 : 10000) + (noise >> 16) % (key ? 8000 : 2000);
    const long ms = frame * 1000L / kFps + channel;  // channels a millisecond apart
    Frame f{};
    f.header.byTag = 1;
    f.header.stTime = SYSTEMTIME{2010, 11, 4, 18, static_cast<WORD>(9 + ms / 3600000),
                                 static_cast<WORD>(ms / 60000 % 60), static_cast<WORD>(ms / 1000 % 60),
                                 static_cast<WORD>(ms % 1000)};
    f.header.chChannel = static_cast<signed char>(channel);
    f.header.dwInfo = key ? kKeyFrame : 0;
    f.header.dwLength = length;
    f.length = length;
    stream.push_back(f);
  }
  return stream;
}

struct Run {
  double wall = 0;
  double cpu = 0;
  double bytes = 0;
  int rollovers = 0;
};

Run Record(const std::vector<Frame>& stream, const std::vector<BYTE>& payload) {
  CMOLRA store;
  _tagBSKLOC drive{3, 2};
  if (store.CreateFS(&drive, 1) != FS_OK || store.OpenFS(0) != FS_OK) {
    std::fprintf(stderr, "cannot make the store\n");
    std::exit(1);
  }
  Run run;
  const double cpu = CpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  for (const Frame& f : stream) {
    _tagCHUNKHDR header = f.header;
    DWORD remaining = 0;
    if (store.SaveData(&header, payload.data(), &remaining, 0) != FS_OK) {
      std::fprintf(stderr, "save failed\n");
      std::exit(1);
    }
    if (store.GetIFrame(0)) {
      ++run.rollovers;
      for (int c = 0; c < kChannels; ++c) store.SetIFrame(c);
    }
    run.bytes += sizeof header + f.length;
  }
  run.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.cpu = CpuSeconds() - cpu;
  store.CloseFS();
  return run;
}

// The same header and payload writes, appended to one file.
Run Append(const std::vector<Frame>& stream, const std::vector<BYTE>& payload) {
  namespace platform = molra::platform;
  std::unique_ptr<platform::File> file = platform::CurrentEnv()->OpenFile(
      "F:\\plain.bin", platform::Access::kWrite, platform::kShareRead,
      platform::Disposition::kCreateAlways);
  if (!file) {
    std::fprintf(stderr, "cannot make the plain file\n");
    std::exit(1);
  }
  Run run;
  const double cpu = CpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  DWORD done = 0;
  for (const Frame& f : stream) {
    file->Write(&f.header, sizeof f.header, &done);
    file->Write(payload.data(), f.length, &done);
    run.bytes += sizeof f.header + f.length;
  }
  run.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.cpu = CpuSeconds() - cpu;
  file->Close();
  return run;
}

void Print(const char* name, const Run& run, size_t saves, const Run* plain) {
  std::printf("%-14s %8zu %10.0f %8.1f %9.2f %9.1f", name, saves, saves / run.wall,
              run.bytes / 1e6 / run.wall, run.wall, run.cpu * 1e6 / static_cast<double>(saves));
  if (plain) std::printf(" %8.2f", run.wall / plain->wall);
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 3;
  char pattern[] = "/tmp/molra-bench-record-XXXXXX";
  if (!mkdtemp(pattern)) return 1;
  const std::string base = pattern;
  TIME_ZONE_INFORMATION utc{};
  molra::platform::SetTimeZone(&utc);

  // About 2.4 baskets of 64 MiB: a full basket, a rollover, and a ring of
  // two that wraps and pushes its oldest basket on.
  const std::vector<Frame> stream = MakeStream(12000);
  std::vector<BYTE> payload(120000);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<BYTE>(i * 7);

  std::printf("recording %zu frames of 16 channels at %d fps (key frames ~100 KB, others ~10 KB)\n",
              stream.size(), kFps);
  std::printf("%-14s %8s %10s %8s %9s %9s %8s\n", "", "saves", "saves/s", "MB/s", "seconds",
              "cpu us", "x plain");
  for (int round = 0; round < rounds; ++round) {
    const std::string dir = base + "/" + std::to_string(round);
    for (char letter = 'a'; letter <= 'z'; ++letter) {
      molra::platform::SetDriveRoot(letter, dir + "/" + letter);
    }
    const Run plain = Append(stream, payload);
    const Run store = Record(stream, payload);
    // The same stream with the recorder flushing every second and at
    // every rollover.
    molra::platform::SetFlushInterval(1);
    const Run flushed = Record(stream, payload);
    molra::platform::SetFlushInterval(0);
    Print("plain append", plain, stream.size(), nullptr);
    Print("SaveData", store, stream.size(), &plain);
    Print("flush 1 s", flushed, stream.size(), &plain);
    std::printf("%-14s rollovers %d\n", "", store.rollovers);
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }
  std::error_code ignored;
  std::filesystem::remove_all(base, ignored);
  return 0;
}
