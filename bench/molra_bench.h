// molra-bench: molra side by side with the store a recorder builder would
// write instead (sqlite_peer.h), and molra alone at up to 100,000 baskets
// (molra_bench_scale.cpp). What its sources share.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "molra/molra.h"

namespace bench {

constexpr int kChannels = 16;
constexpr int kFps = 30;
constexpr int kGop = 30;  // frames from a key frame of a channel to its next
constexpr DWORD kKeyFrame = 0x10000;
constexpr std::int64_t kSegmentBytes = 64 << 20;  // the peer's segment files

// One frame of the workload; stamps are UTC milliseconds since 1970.
struct Frame {
  std::int64_t ms;
  signed char channel;
  bool key;
  DWORD length;
};

// `seconds` of 16 channels at 30 fps from `startMs`, channels 1 ms apart: a
// ~100 KB key frame every 30th frame of a channel (channels 2 frames apart),
// ~10 KB frames between; with `keyOnly` all ~100 KB.
std::vector<Frame> MakeStream(std::int64_t startMs, int seconds, bool keyOnly);
SYSTEMTIME ToStamp(std::int64_t ms);
std::int64_t ToMillis(const SYSTEMTIME& stamp);

inline double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
template <typename F>
double Timed(F&& work) {
  const double start = Now();
  work();
  return Now() - start;
}
double Median(std::vector<double> values);
template <typename F>
double MedianMs(int runs, F&& work) {
  std::vector<double> ms;
  for (int i = 0; i < runs; ++i) ms.push_back(Timed(work) * 1e3);
  return Median(ms);
}

// Drop a file, or every file below a directory, from the page cache; dirty
// pages stay unless `sync` writes them back first (or SyncDisk did).
void DropFile(const std::string& path, bool sync = false);
void DropTree(const std::string& dir, bool sync = false);
void SyncDisk();            // syncfs of the run's file system
std::uint64_t BytesRead();  // by this process so far: rchar of /proc/self/io

// Drive X lies in `store`/x; a basket's "D:\MOLRA\FS000001" below `store`.
void UseDrives(const std::string& store);
std::string RealPath(const std::string& store, const char* szPath, const char* ext);

[[noreturn]] void Fail(const char* what, long code = 0);

// A machine-readable line; a goal of the issue (`value` at most or at least
// `limit`), judged at the end.
void Result(const char* kind, const char* metric, double ratio);
void ScaleResult(const char* metric, DWORD baskets, double ms);
void AddGoal(const std::string& what, double value, double limit, bool atMost);

struct ScaleInput {
  std::string realStore;                   // the workload's store
  std::vector<_tagFSBSKINFO> realBaskets;  // its baskets in ring order, oldest first
  std::int64_t spanMs;                     // of one full basket
  std::string work;                        // a directory to make
  bool quick;
};
void RunScale(const ScaleInput& input);

}  // namespace bench
