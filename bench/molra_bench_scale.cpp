// molra alone at 1,000, 10,000 and 100,000 baskets: the month, day and hour
// queries (page cache warm and dropped), OpenFS, a seek and its basket
// search, and the bytes each query reads against whole day records.
//
// The catalogue is written record by record. Its newest baskets are the
// workload's own, linked in; the others continue the recording backwards,
// a full workload basket's span each. Their .CTA files are made when the
// store first opens them (in a run of each query before the timed ones),
// holding what 16 channels recorded over that span leave: the day records
// with date, hour and minute cells. Files no query opens are not made: the
// queries pass those baskets on their catalogue records alone, and none
// opens a .CDT or .CIN of theirs (checked).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <set>

#include "molra_bench.h"
#include "platform/env.h"
#include "timeline/day_record_reader.h"

namespace bench {
namespace {

namespace platform = molra::platform;

constexpr DWORD kBaskets = 100000;
constexpr DWORD kScales[] = {1000, 10000, 100000};
const char* const kMetrics[9] = {"openfs", "seek-search", "seek", "month",    "month-cold",
                                 "day",    "day-cold",    "hour", "hour-cold"};

class Player : public CMOLRA {
 public:
  using CMOLRA::FindFirstBskDate;
};

// Makes a synthetic basket's .CTA the first time the store opens it.
class MakingEnv final : public platform::EnvWrapper {
 public:
  MakingEnv(const ScaleInput& in, DWORD synthetic)
      : EnvWrapper(platform::Env::Default()), m_in(in), m_synthetic(synthetic) {}
  std::unique_ptr<platform::File> OpenFile(const char* path, platform::Access access,
                                           unsigned share,
                                           platform::Disposition disposition) override {
    const char* name = std::strstr(path, "\\MOLRA\\FS");  // "\MOLRA\FS000123.CTA"
    const DWORD n = name ? static_cast<DWORD>(std::atoi(name + 9)) : kBaskets;
    if (n < m_synthetic && std::strcmp(name + 15, ".CTA") != 0)
      Fail("the check that no query opens a synthetic .CDT or .CIN");
    if (n < m_synthetic && made.insert(n).second) Make(RealPath(m_in.work, path, ""), First(n));
    return m_target->OpenFile(path, access, share, disposition);
  }
  std::int64_t First(DWORD n) const {
    return ToMillis(m_in.realBaskets[0].stFirst) - (m_synthetic - n) * m_in.spanMs;
  }
  std::set<DWORD> made;

 private:
  void Make(const std::string& path, std::int64_t first) const {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    auto day = std::make_unique<_tagFSBSKTBL>();
    off_t at = 0;
    for (std::int64_t t = first - first % 60000; t < first + m_in.spanMs; t += 60000) {
      const SYSTEMTIME s = ToStamp(t);
      if (day->dwYear != 0 && day->dwDay != s.wDay) {  // the next day's record
        if (::pwrite(fd, day.get(), sizeof *day, at) != sizeof *day) Fail("writing a day table");
        at += sizeof *day;
        *day = _tagFSBSKTBL{};
      }
      day->dwYear = s.wYear;
      day->dwMonth = s.wMonth;
      day->dwDay = s.wDay;
      for (int c = 0; c < kChannels; ++c)
        day->dwHour[c][s.wHour] = day->dwMinute[c][s.wHour][s.wMinute] = kKeyFrame;
    }
    if (fd < 0 || ::pwrite(fd, day.get(), sizeof *day, at) != sizeof *day ||
        ::ftruncate(fd, molra::kTableFileSize) != 0) {
      Fail("making a day table");
    }
    ::close(fd);
  }
  const ScaleInput& m_in;
  const DWORD m_synthetic;
};

// Every basket's catalogue record, oldest first; links the workload's files.
std::vector<_tagFSBSKINFO> Build(const ScaleInput& in, const MakingEnv& making, DWORD synthetic) {
  for (const char* dir : {"", "/c", "/c/FSDIR", "/d", "/d/MOLRA"})
    ::mkdir((in.work + dir).c_str(), 0777);
  std::vector<_tagFSBSKINFO> all(kBaskets);
  for (DWORD n = 0; n < kBaskets; ++n) {
    _tagFSBSKINFO& r = all[n];
    r = n < synthetic ? _tagFSBSKINFO{} : in.realBaskets[n - synthetic];
    std::snprintf(r.szPath, sizeof r.szPath, "D:\\MOLRA\\FS%06u", static_cast<unsigned>(n));
    if (n < synthetic) {
      const std::int64_t first = making.First(n), last = first + in.spanMs - 1;
      r.stCreated = r.stFirst = ToStamp(first);
      r.stLast = ToStamp(last);
      r.dwDays = first / 86400000 == last / 86400000 ? 1 : 2;
      r.dwChunks = static_cast<DWORD>(in.spanMs * kChannels * kFps / 1000);
      r.dwFlags = 1;
      continue;
    }
    for (const char* ext : {".CDT", ".CIN", ".CTA"}) {
      if (::link(RealPath(in.realStore, in.realBaskets[n - synthetic].szPath, ext).c_str(),
                 RealPath(in.work, r.szPath, ext).c_str()) != 0) {
        Fail("linking a workload basket");
      }
    }
  }
  return all;
}

// The newest `count` baskets as a store, the newest current.
void WriteCatalogue(const std::string& work, const std::vector<_tagFSBSKINFO>& all, DWORD count) {
  _tagFSHDR head{{'M', 'O', 'L', 'R', 'A', '3'}, 0x0100, count, count - 1, 0, {}};
  const int fd = ::open((work + "/c/FSDIR/MOLRA.CFT").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  const ssize_t bytes = static_cast<ssize_t>(count * sizeof(_tagFSBSKINFO));
  if (fd < 0 || ::write(fd, &head, sizeof head) != sizeof head ||
      ::write(fd, all.data() + (all.size() - count), bytes) != bytes) {
    Fail("writing a catalogue");
  }
  ::close(fd);
}

}  // namespace

void RunScale(const ScaleInput& in) {
  const DWORD synthetic = kBaskets - static_cast<DWORD>(in.realBaskets.size());
  MakingEnv making(in, synthetic);
  const std::vector<_tagFSBSKINFO> all = Build(in, making, synthetic);
  UseDrives(in.work);
  const int warm = in.quick ? 3 : 7;  // median of
  const int cold = in.quick ? 1 : 2;  // best of
  // The month, the day and the hour (channel 0) before the workload's
  // first whole minute; a seek to that minute.
  const SYSTEMTIME at = ToStamp(ToMillis(in.realBaskets[0].stFirst) / 60000 * 60000 + 60000);
  const WORD hour = static_cast<WORD>(at.wHour == 0 ? 0 : at.wHour - 1);
  std::printf(
      "\nscale: molra alone; the newest %zu baskets are the workload's, the others continue it "
      "backwards, %.1f s each; their .CTA files are made as the queries first open them "
      "(molra_bench_scale.cpp)\nqueries: month %04d-%02d, day %02d, hour %02d, channel 0; seek "
      "to %02d:%02d; warm: median of %d; cold (the catalogue and the .CTA files dropped "
      "before each run): best of %d\n  %8s",
      in.realBaskets.size(), in.spanMs / 1e3, at.wYear, at.wMonth, at.wDay, hour, at.wHour,
      at.wMinute, warm, cold, "baskets");
  for (const char* m : kMetrics) std::printf(" %11s", m);
  std::printf("   ms\n");
  double ms[3][9], kib[3][6];  // bytes read by month, day, hour: as molra reads, whole records
  for (int s = 0; s < 3; ++s) {
    WriteCatalogue(in.work, all, kScales[s]);
    Player player;
    LONG rc = player.OpenFS(1);
    if (rc != FS_OK) Fail("OpenFS(1) at scale", rc);
    int days[31];
    DWORD cells[16 * 24], minutes[60];
    const std::function<void()> queries[3] = {
        [&] { player.GetSaveDateInfo(at.wYear, at.wMonth, days, 31); },
        [&] { player.GetSaveTimeInfo(at.wYear, at.wMonth, at.wDay, 0, cells, nullptr); },
        [&] { player.GetSaveMinuteInfo(at.wYear, at.wMonth, at.wDay, hour, 0, 0, minutes, 0); }};
    platform::SetCurrentEnv(&making);  // the first runs make the files they open
    for (const auto& query : queries) query();
    platform::SetCurrentEnv(nullptr);
    SyncDisk();  // so that the drops below only drop
    ms[s][0] = MedianMs(warm, [&] { rc = player.OpenFS(1); });
    ms[s][1] = MedianMs(warm, [&] {
      rc = player.FindFirstBskDate(at.wYear, at.wMonth, at.wDay, at.wHour, at.wMinute);
    });
    // The minute lies in the workload's baskets, at the far end of the search.
    if (rc < static_cast<LONG>(kScales[s] - in.realBaskets.size())) Fail("the basket search", rc);
    std::vector<unsigned char> payload(molra::kMaxChunkLength);
    ms[s][2] = MedianMs(warm, [&] {
      _tagCHUNKHDR h{};
      h.stTime = at;
      h.chChannel = -1;
      rc = player.ReadDataEx(&h, payload.data());
    });
    if (rc != FS_OK) Fail("a seek at scale", rc);
    for (int q = 0; q < 3; ++q) {
      ms[s][3 + 2 * q] = MedianMs(warm, queries[q]);
      ms[s][4 + 2 * q] = 1e30;
      for (int i = 0; i < cold; ++i) {
        DropFile(in.work + "/c/FSDIR/MOLRA.CFT");
        for (DWORD n : making.made) DropFile(RealPath(in.work, all[n].szPath, ".CTA"));
        for (DWORD n = synthetic; n < kBaskets; ++n)
          DropFile(RealPath(in.work, all[n].szPath, ".CTA"));
        ms[s][4 + 2 * q] = std::min(ms[s][4 + 2 * q], MedianMs(1, queries[q]));
      }
      for (const bool whole : {false, true}) {
        molra::DayRecordReader::SetWholeRecords(whole);
        const std::uint64_t before = BytesRead(), cost = BytesRead() - before;
        queries[q]();
        kib[s][q + 3 * whole] = static_cast<double>(BytesRead() - before - 2 * cost) / 1024;
      }
      molra::DayRecordReader::SetWholeRecords(false);
    }
    if (days[at.wDay - 1] != 1 || cells[hour] == 0 || minutes[59] == 0) Fail("the scale answers");
    player.CloseFS();
    std::printf("  %8u", static_cast<unsigned>(kScales[s]));
    for (int m = 0; m < 9; ++m) {
      std::printf(" %11.3f", ms[s][m]);
      ScaleResult(kMetrics[m], kScales[s], ms[s][m]);
    }
    std::printf("\n");
  }
  for (int s = 1; s < 3; ++s) {
    std::printf("  x%-7u", static_cast<unsigned>(kScales[s] / kScales[s - 1]));
    for (int m = 0; m < 9; ++m) std::printf(" %10.1fx", ms[s][m] / ms[s - 1][m]);
    std::printf("   growth from %u baskets\n", static_cast<unsigned>(kScales[s - 1]));
  }
  std::printf(
      "  .CTA files made: %zu of %u\n\n  KiB read per query: as molra reads / whole day "
      "records read; both with the catalogue\n  %8s %21s %21s %21s\n",
      making.made.size(), static_cast<unsigned>(synthetic), "baskets", "month", "day", "hour");
  for (int s = 0; s < 3; ++s) {
    std::printf("  %8u", static_cast<unsigned>(kScales[s]));
    for (int q = 0; q < 3; ++q) std::printf(" %10.0f / %-8.0f", kib[s][q], kib[s][q + 3]);
    std::printf("\n");
  }
  AddGoal("scale month, 100,000 baskets, warm ms", ms[2][3], 100, true);
  AddGoal("scale month, 100,000 baskets, cold ms", ms[2][4], 1000, true);
  AddGoal("scale day, 100,000 baskets, warm ms", ms[2][5], 20, true);
}

}  // namespace bench
