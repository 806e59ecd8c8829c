// record: an H.264 byte stream into one channel of the store, a chunk per
// access unit, stamped at a steady frame rate.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

#include "console.h"
#include "annexb.h"
#include "commands.h"
#include "molra/molra.h"
#include "result_names.h"
#include "utc_time.h"
#ifdef MOLRA_WITH_LIBAV
#include "unit_decoding.h"
#endif

namespace molra_tools {

namespace {

// The units since the last key frame, for a look at the last unit when the
// stream ends; a longer run than this is not kept, and that look skipped.
constexpr size_t kMaxHeldBytes = 64u << 20;

class Recorder {
 public:
  Recorder(int channel, double fps, long long start)
      : m_channel(channel), m_fps(fps), m_start(start), m_progress(molra_tools::StderrIsTerminal()) {}

  // Saves one unit: "" or the problem.
  std::string Save(const annexb::AccessUnit& unit) {
    if (!m_opened) {
      const LONG opened = m_store.OpenFS(0);
      if (opened != FS_OK) return "the store cannot be opened: " + DescribeResult(opened);
      m_opened = true;
    }
    const long long stamp = m_start + std::llround(static_cast<double>(m_frames) * 1000.0 / m_fps);
    _tagCHUNKHDR header{};
    header.stTime = StampAt(stamp);
    header.chChannel = static_cast<signed char>(m_channel);
    header.dwInfo = unit.key ? 0x10000 : 0;
    header.dwLength = static_cast<DWORD>(unit.bytes.size());
    DWORD remaining = 0;
    const LONG saved = m_store.SaveData(&header, unit.bytes.data(), &remaining, 0);
    if (saved != FS_OK) {
      return "the store refused the frame of " + MillisecondText(stamp) + ": " +
             DescribeResult(saved) + " (see " + kStatusLogPath + ")";
    }
    if (m_frames == 0) m_first = stamp;
    m_last = stamp;
    ++m_frames;
    m_keys += unit.key ? 1 : 0;
    m_bytes += unit.bytes.size();
    Hold(unit);
    ShowProgress(false);
    return "";
  }

  // The units from the last key frame up to `last`; empty when they were
  // not all kept.
  std::vector<std::vector<std::uint8_t>> Run(const annexb::AccessUnit& last) {
    if (last.key) return {last.bytes};
    if (!m_holding) return {};
    std::vector<std::vector<std::uint8_t>> run = m_held;
    run.push_back(last.bytes);
    return run;
  }

  long long Frames() const { return m_frames; }

  void Summary() {
    ShowProgress(true);
    if (m_frames == 0) return;
    std::printf("channel %d: %lld frames (%lld key frames), %llu bytes, %s to %s UTC\n", m_channel,
                m_frames, m_keys, m_bytes, MillisecondText(m_first).c_str(),
                MillisecondText(m_last).c_str());
  }

 private:
  void Hold(const annexb::AccessUnit& unit) {
    if (unit.key) {
      m_held.clear();
      m_heldBytes = 0;
      m_holding = true;
    }
    if (!m_holding) return;
    m_heldBytes += unit.bytes.size();
    if (m_heldBytes > kMaxHeldBytes) {
      m_held.clear();
      m_holding = false;
      return;
    }
    m_held.push_back(unit.bytes);
  }

  // A line on a terminal, at most ten times a second; `end` closes it.
  void ShowProgress(bool end) {
    if (!m_progress) return;
    const auto now = std::chrono::steady_clock::now();
    if (!end && m_shown && now - m_shownAt < std::chrono::milliseconds(100)) return;
    if (!end || m_shown) {
      std::fprintf(stderr, "\rchannel %d: %lld frames, %lld key frames, %.1f MB%s", m_channel,
                   m_frames, m_keys, static_cast<double>(m_bytes) / 1e6, end ? "\n" : "");
      std::fflush(stderr);
    }
    m_shown = true;
    m_shownAt = now;
  }

  CMOLRA m_store;
  bool m_opened = false;
  int m_channel;
  double m_fps;
  long long m_start;
  long long m_frames = 0, m_keys = 0;
  unsigned long long m_bytes = 0;
  long long m_first = 0, m_last = 0;
  std::vector<std::vector<std::uint8_t>> m_held;
  size_t m_heldBytes = 0;
  bool m_holding = false;
  bool m_progress;
  bool m_shown = false;
  std::chrono::steady_clock::time_point m_shownAt;
};

// The latest stamp of any basket; false for a store without recordings.
bool NewestStamp(long long* newest) {
  CMOLRA store;
  store.CallLoadFSinfo();
  bool any = false;
  for (DWORD n = 0; n < store.GetFSInfo()->dwBaskets; ++n) {
    _tagFSBSKINFO record{};
    if (store.GetBaksetInfo(static_cast<LONG>(n), &record) != FS_OK || record.stLast.wYear == 0) {
      continue;
    }
    const long long last = MillisecondsOf(record.stLast);
    *newest = any ? std::max(*newest, last) : last;
    any = true;
  }
  return any;
}

}  // namespace

int RunRecord(int channel, double fps, long long start, const std::string& file) {
  if (!CatalogueExists()) {
    return Refuse(std::string("no store: the catalogue ") + kCataloguePath + " does not exist");
  }
  // The index walks its keys in the order they were saved: a recording
  // stamped before what the store holds could not be played back.
  long long newest = 0;
  if (NewestStamp(&newest) && start <= newest) {
    return Refuse("--start " + MillisecondText(start) + " is not after the store's newest stamp, " +
                  MillisecondText(newest) + " (UTC): the store records forward in time");
  }
  const bool standardInput = file == "-";
  const std::string name = standardInput ? "standard input" : file;
  std::unique_ptr<FILE, int (*)(FILE*)> opened(nullptr, &std::fclose);
  FILE* in = stdin;
  if (standardInput) {
#ifdef _WIN32
    _setmode(_fileno(stdin), _O_BINARY);
#endif
  } else {
    opened.reset(std::fopen(file.c_str(), "rb"));
    if (!opened) return Refuse(file + ": " + DescribeErrno(errno));
    in = opened.get();
  }

  Recorder recorder(channel, fps, start);
  annexb::Splitter splitter(molra::kMaxChunkLength);
  // Nothing stored: the store is as it was (2); else the frames stored
  // stay, and the summary says what they are (1).
  const auto stop = [&](const std::string& problem) {
    recorder.Summary();
    if (recorder.Frames() == 0) return Refuse(problem + "; nothing stored");
    std::fprintf(stderr, "molra: %s; the %lld frames before it are stored\n", problem.c_str(),
                 recorder.Frames());
    return kExitFound;
  };
  const auto splitFault = [&]() {
    if (splitter.FaultAtHead()) {
      return stop(name + " is not an H.264 byte stream (Annex B): " + splitter.Fault());
    }
    return stop(name + ", byte " + std::to_string(splitter.FaultOffset()) + ": " +
                splitter.Fault());
  };

  std::vector<std::uint8_t> block(1 << 16);
  annexb::AccessUnit unit;
  for (;;) {
    const size_t got = std::fread(block.data(), 1, block.size(), in);
    if (got == 0) break;
    const bool going = splitter.Push(block.data(), got);
    while (splitter.Pop(&unit)) {
      const std::string problem = recorder.Save(unit);
      if (!problem.empty()) return stop(problem);
    }
    if (!going) return splitFault();
  }
  if (std::ferror(in)) return stop("reading " + name + " failed: " + DescribeErrno(errno));
  if (!splitter.Finish()) return splitFault();
  // Finish completes the units still open; the stream's last may be torn.
  std::vector<annexb::AccessUnit> rest;
  while (splitter.Pop(&unit)) rest.push_back(std::move(unit));
  for (size_t i = 0; i < rest.size(); ++i) {
#ifdef MOLRA_WITH_LIBAV
    if (i + 1 == rest.size()) {
      const std::string fault = LastUnitFault(recorder.Run(rest[i]));
      if (!fault.empty()) {
        return stop(name + ", byte " + std::to_string(rest[i].offset) +
                    ": the stream breaks off inside its last frame (" + fault + ")");
      }
    }
#endif
    const std::string problem = recorder.Save(rest[i]);
    if (!problem.empty()) return stop(problem);
  }
  recorder.Summary();
  return kExitOk;
}

}  // namespace molra_tools
