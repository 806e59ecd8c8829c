// Times the timeline queries on a store of 200 baskets with two days each:
// a month, a day and an hour query, reading whole day records against
// reading just the bytes each query needs, side by side, same answers.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "molra/molra.h"
#include "timeline/day_record_reader.h"

namespace {

constexpr DWORD kBaskets = 200;
constexpr int kRuns = 7;

// Lays out the store and writes two day records into each basket's table,
// as a recorder that filled a basket over a day boundary leaves them.
class StoreBuilder : public CMOLRA {
 public:
  bool Build(const std::string& dRoot) {
    _tagBSKLOC drive{3, static_cast<LONG>(kBaskets)};
    if (CreateFS(&drive, 1) != FS_OK) return false;
    auto table = std::make_unique<_tagFSBSKTBL>();
    for (DWORD n = 0; n < kBaskets; ++n) {
      _tagFSBSKINFO& record = (*m_ppBasket)[n];
      // Basket n spans 2010-10-(1 + n/8) and the next day.
      const WORD day = static_cast<WORD>(1 + n / 8);
      record.stFirst = SYSTEMTIME{2010, 10, 0, day, 20, 0, 0, 0};
      record.stLast = SYSTEMTIME{2010, 10, 0, static_cast<WORD>(day + 1), 3, 0, 0, 0};
      record.dwDays = 2;
      record.dwChunks = 70000;
      record.dwFlags = 1;
      char name[32];
      std::snprintf(name, sizeof name, "/MOLRA/FS%06u.CTA", static_cast<unsigned>(n));
      std::fstream file(dRoot + name, std::ios::in | std::ios::out | std::ios::binary);
      for (int k = 0; k < 2; ++k) {
        std::memset(table.get(), 0, sizeof *table);
        table->dwYear = 2010;
        table->dwMonth = 10;
        table->dwDay = day + k;
        for (int c = 0; c < 16; ++c) {
          for (int h = k == 0 ? 20 : 0; h < (k == 0 ? 24 : 4); ++h) {
            table->dwHour[c][h] = 0x10000 | static_cast<DWORD>(n);
            for (int m = 0; m < 60; ++m) table->dwMinute[c][h][m] = 0x10000 | static_cast<DWORD>(n);
          }
        }
        file.write(reinterpret_cast<const char*>(table.get()), sizeof *table);
      }
    }
    m_FsHdr.dwCurrent = kBaskets - 1;
    m_FsHdr.dwOldest = 0;
    SaveFSInfo(-1);
    return true;
  }
};

struct Timing {
  double monthMs, dayMs, hourMs;
  long answer;  // a digest of the answers, to see that both ways agree
};

std::string g_tables;  // the directory of the baskets' tables
bool g_cold = false;   // drop the tables from the page cache before each run

// Asks the kernel to forget the tables' cached pages, as after a long
// recording has pushed them out: the query then reads from the disk.
void DropTables() {
  for (const auto& entry : std::filesystem::directory_iterator(g_tables)) {
    if (entry.path().extension() != ".CTA") continue;
    const int fd = open(entry.path().c_str(), O_RDONLY);
    if (fd < 0) continue;
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    close(fd);
  }
}

template <typename Query>
double MedianMs(Query query) {
  std::vector<double> ms;
  for (int run = 0; run < kRuns; ++run) {
    if (g_cold) DropTables();
    const auto start = std::chrono::steady_clock::now();
    query();
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                     .count());
  }
  std::sort(ms.begin(), ms.end());
  return ms[ms.size() / 2];
}

Timing Measure(CMOLRA& reader, bool whole) {
  molra::DayRecordReader::SetWholeRecords(whole);
  Timing t{};
  int days[31];
  DWORD hours[16 * 24];
  DWORD minutes[60];
  t.monthMs = MedianMs([&] { reader.GetSaveDateInfo(2010, 10, days, 31); });
  t.dayMs = MedianMs([&] { reader.GetSaveTimeInfo(2010, 10, 13, 0, hours, nullptr); });
  t.hourMs = MedianMs([&] { reader.GetSaveMinuteInfo(2010, 10, 13, 22, 0, 5, minutes, 1); });
  for (int d : days) t.answer = t.answer * 3 + d;
  for (DWORD h : hours) t.answer = t.answer * 7 + static_cast<long>(h % 1000);
  for (DWORD m : minutes) t.answer = t.answer * 5 + static_cast<long>(m % 1000);
  molra::DayRecordReader::SetWholeRecords(false);
  return t;
}

}  // namespace

int main() {
  char pattern[] = "/tmp/molra-bench-timeline-XXXXXX";
  if (!mkdtemp(pattern)) return 1;
  const std::string base = pattern;
  for (char letter = 'a'; letter <= 'z'; ++letter) {
    molra::platform::SetDriveRoot(letter, base + "/" + letter);
  }
  TIME_ZONE_INFORMATION utc{};
  molra::platform::SetTimeZone(&utc);
  {
    StoreBuilder builder;
    if (!builder.Build(base + "/d")) {
      std::fprintf(stderr, "cannot build the store\n");
      return 1;
    }
  }
  CMOLRA reader;
  if (reader.OpenFS(1) != FS_OK) return 1;
  g_tables = base + "/d/MOLRA";
  std::printf("timeline queries on %u baskets of two days each, median of %d runs (ms)\n",
              static_cast<unsigned>(kBaskets), kRuns);
  for (int round = 0; round < 2; ++round) {
    g_cold = round == 1;
    std::printf("%s\n%-22s %10s %10s %10s\n",
                g_cold ? "tables dropped from the page cache before each run:"
                       : "tables in the page cache:",
                "", "month", "day", "hour");
    const Timing whole = Measure(reader, true);
    const Timing needed = Measure(reader, false);
    std::printf("%-22s %10.2f %10.2f %10.2f\n", "whole records", whole.monthMs, whole.dayMs,
                whole.hourMs);
    std::printf("%-22s %10.2f %10.2f %10.2f\n", "the bytes needed", needed.monthMs, needed.dayMs,
                needed.hourMs);
    std::printf("%-22s %10.1f %10.1f %10.1f   answers %s\n", "x faster", whole.monthMs / needed.monthMs,
                whole.dayMs / needed.dayMs, whole.hourMs / needed.hourMs,
                whole.answer == needed.answer ? "equal" : "DIFFER");
  }
  reader.CloseFS();
  std::error_code ignored;
  std::filesystem::remove_all(base, ignored);
  return 0;
}
