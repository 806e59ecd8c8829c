// The demo host: makes a store on two drives below ./molra-drives (the
// library's default drive roots), records two minutes of a synthetic
// 16-channel stream into it, plays a little of it back, and prints the
// zone it reads and the catalogue with each basket's span in local time.
#include <chrono>
#include <cstdio>
#include <ctime>
#include <tuple>
#include <string>
#include <vector>

#include "molra/molra.h"
#include "retention_days.h"

namespace {

// The C library's thread-safe calendar calls, by their name on each system.
#ifdef _WIN32
void gmtime_r(const std::time_t* t, std::tm* out) { gmtime_s(out, t); }
void localtime_r(const std::time_t* t, std::tm* out) { localtime_s(out, t); }
std::time_t timegm(std::tm* t) { return _mkgmtime(t); }
#endif

class DemoRecorder : public CMOLRA {
 public:
  int OnCreatingFS(char* path, DWORD ordinal) override {
    std::printf("  making basket %u: %s\n", static_cast<unsigned>(ordinal), path);
    return 1;
  }
  // The latest stamp the store holds (UTC), or a zero stamp.
  SYSTEMTIME Latest() {
    SYSTEMTIME latest{};
    for (DWORD n = 0; n < GetFSInfo()->dwBaskets; ++n) {
      const _tagFSBSKINFO* record = Basket(n);
      if (!record) break;
      const SYSTEMTIME last = record->stLast;
      if (CompareSystemTime(&last, &latest, 0) > 0) latest = last;
    }
    return latest;
  }
};

void PrintStamp(const SYSTEMTIME& t) {
  if (t.wYear == 0) {
    std::printf(" %-19s", "-");
  } else {
    std::printf(" %04u-%02u-%02u %02u:%02u:%02u", t.wYear, t.wMonth, t.wDay, t.wHour,
                t.wMinute, t.wSecond);
  }
}

void PrintCatalogue(CMOLRA& store) {
  const _tagFSHDR* head = store.GetFSInfo();
  std::printf("catalogue C:\\FSDIR\\MOLRA.CFT: magic %.6s, version 0x%04X, %u baskets, "
              "current %u, oldest %u\n",
              head->szMagic, head->wVersion, static_cast<unsigned>(head->dwBaskets),
              static_cast<unsigned>(head->dwCurrent), static_cast<unsigned>(head->dwOldest));
}

std::string Name(const WCHAR* name) {
  std::string text;
  for (int i = 0; i < 32 && name[i] != 0; ++i) text += static_cast<char>(name[i] < 128 ? name[i] : '?');
  return text;
}

void PrintZone(CMOLRA& store) {
  const TIME_ZONE_INFORMATION zone = store.GetTimeZoneInfo();
  std::printf("zone %s: UTC = local %+d min", Name(zone.StandardName).c_str(),
              static_cast<int>(zone.Bias));
  if (zone.DaylightBias == 0) {
    std::printf(", no daylight time\n");
    return;
  }
  const SYSTEMTIME& on = zone.DaylightDate;
  const SYSTEMTIME& off = zone.StandardDate;
  std::printf("; %s %+d min from Sunday %u of month %u at %u:00 to Sunday %u of month %u at %u:00\n",
              Name(zone.DaylightName).c_str(), static_cast<int>(zone.DaylightBias), on.wDay,
              on.wMonth, on.wHour, off.wDay, off.wMonth, off.wHour);
}

// The recorder's stream: 16 channels at 30 frames a second for two
// minutes from now (UTC), a key frame (bit 16) every 30th frame of a
// channel and now and then an event in the top byte. Frames are small so
// that the demo stays quick, yet the stream still fills a basket.
constexpr int kChannels = 16;
constexpr int kFps = 30;
constexpr int kSeconds = 120;
constexpr DWORD kKeyFrame = 0x10000;

SYSTEMTIME UtcNow() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm utc;
  gmtime_r(&seconds, &utc);
  return SYSTEMTIME{static_cast<WORD>(utc.tm_year + 1900), static_cast<WORD>(utc.tm_mon + 1),
                    static_cast<WORD>(utc.tm_wday), static_cast<WORD>(utc.tm_mday),
                    static_cast<WORD>(utc.tm_hour), static_cast<WORD>(utc.tm_min),
                    static_cast<WORD>(utc.tm_sec), 0};
}

// A stamp `ms` milliseconds after `start`, within the same day or the next.
SYSTEMTIME After(const SYSTEMTIME& start, long ms) {
  std::tm t{};
  t.tm_year = start.wYear - 1900;
  t.tm_mon = start.wMonth - 1;
  t.tm_mday = start.wDay;
  t.tm_hour = start.wHour;
  t.tm_min = start.wMinute;
  t.tm_sec = start.wSecond + static_cast<int>(ms / 1000);
  const std::time_t when = timegm(&t);
  std::tm utc;
  gmtime_r(&when, &utc);
  return SYSTEMTIME{static_cast<WORD>(utc.tm_year + 1900), static_cast<WORD>(utc.tm_mon + 1),
                    static_cast<WORD>(utc.tm_wday), static_cast<WORD>(utc.tm_mday),
                    static_cast<WORD>(utc.tm_hour), static_cast<WORD>(utc.tm_min),
                    static_cast<WORD>(utc.tm_sec), static_cast<WORD>(ms % 1000)};
}

// `first` receives the stamp (UTC) of the run's first frame.
bool Record(DemoRecorder& store, SYSTEMTIME* first) {
  if (store.OpenFS(0) != FS_OK) {
    std::printf("OpenFS(0) failed\n");
    return false;
  }
  // A second run goes on behind what the first one recorded.
  SYSTEMTIME start = UtcNow();
  const SYSTEMTIME latest = store.Latest();
  if (latest.wYear != 0) {
    const SYSTEMTIME next = After(latest, 1000);
    if (next.wYear > start.wYear ||
        (next.wYear == start.wYear &&
         std::tie(next.wMonth, next.wDay, next.wHour, next.wMinute, next.wSecond) >
             std::tie(start.wMonth, start.wDay, start.wHour, start.wMinute, start.wSecond))) {
      start = next;
      start.wMilliseconds = 0;
    }
  }
  if (latest.wYear != 0) {
    std::printf("the store holds recordings up to %04u-%02u-%02u %02u:%02u:%02u UTC: this run "
                "records after them, from %04u-%02u-%02u %02u:%02u:%02u UTC\n",
                latest.wYear, latest.wMonth, latest.wDay, latest.wHour, latest.wMinute,
                latest.wSecond, start.wYear, start.wMonth, start.wDay, start.wHour, start.wMinute,
                start.wSecond);
  }
  *first = start;
  std::vector<BYTE> payload(20000);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<BYTE>(i);
  long saved = 0, keyFrames = 0, events = 0, rollovers = 0, marks = 0;
  int markedHour[kChannels];
  for (int& hour : markedHour) hour = -1;
  double bytes = 0;
  std::uint32_t noise = 7;
  for (int frame = 0; frame < kSeconds * kFps; ++frame) {
    for (int channel = 0; channel < kChannels; ++channel) {
      noise = noise * 1103515245u + 12345u;
      const bool key = frame % kFps == 0;
      const bool event = (noise >> 20) % 500 == 0;
      _tagCHUNKHDR header{};
      header.byTag = 1;
      header.stTime = After(start, frame * 1000L / kFps + channel);
      header.chChannel = static_cast<signed char>(channel);
      header.dwInfo = (key ? kKeyFrame : 0) | (event ? 0x01000000u << (noise >> 28) % 8 : 0);
      header.dwLength = key ? 12000 + (noise >> 16) % 4000 : 800 + (noise >> 16) % 400;
      DWORD remaining = 0;
      const LONG result = store.SaveData(&header, payload.data(), &remaining, 0);
      if (result != FS_OK) {
        std::printf("SaveData failed with %d\n", static_cast<int>(result));
        return false;
      }
      ++saved;
      // The quick search learns of each hour a channel enters.
      if (markedHour[channel] != header.stTime.wHour) {
        markedHour[channel] = header.stTime.wHour;
        marks += store.SaveTimeWrite(header.stTime, static_cast<char>(channel));
      }
      keyFrames += key;
      events += event;
      bytes += sizeof header + header.dwLength;
      if (store.GetIFrame(channel)) {
        // A new basket: the host would start each channel on a key frame.
        if (channel == 0) {
          ++rollovers;
          std::printf("  basket %u takes over at %02u:%02u:%02u UTC\n",
                      static_cast<unsigned>(store.GetFSInfo()->dwCurrent), header.stTime.wHour,
                      header.stTime.wMinute, header.stTime.wSecond);
        }
        store.SetIFrame(channel);
      }
    }
  }
  std::printf("recorded %ld chunks (%.1f MB) of %d channels, %ld key frames, %ld events, "
              "%ld basket changes, %ld hour marks in the day files\n",
              saved, bytes / 1e6, kChannels, keyFrames, events, rollovers, marks);
  store.CloseFS();
  return true;
}

const char* ResultName(LONG result) {
  static const char* const kNames[] = {"FS_OK",         "FS_ERR_CATALOG", "FS_ERR_PARAM",
                                       "FS_ERR_CREATE", "FS_ERR_CANCEL",  "FS_ERR_MEMORY",
                                       "FS_ERR_FILE",   "FS_ERR_INDEX",   "FS_ERR_MODE",
                                       "FS_END_OF_DATA", "FS_BEGIN_OF_DATA"};
  return result >= FS_OK && result <= FS_BEGIN_OF_DATA ? kNames[result] : "unknown result";
}

// One line of playback: how the chunk was reached, then the chunk, or the
// result when the call failed.
void PrintChunk(const char* how, LONG result, const _tagCHUNKHDR& header) {
  if (result != FS_OK) {
    std::printf("  %-6s %s\n", how, ResultName(result));
    return;
  }
  const SYSTEMTIME t = header.stTime;
  std::printf("  %-6s channel %2d  %04u-%02u-%02u %02u:%02u:%02u.%03u  %6u bytes%s\n", how,
              header.chChannel, t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond,
              t.wMilliseconds, static_cast<unsigned>(header.dwLength),
              (header.dwInfo & kKeyFrame) != 0 ? "  key" : "");
}

// What a player does with the run just recorded, in local time: a seek
// to its first minute, a few steps along channel 0, then a skip through
// the key frames 10 seconds apart.
void Play(const SYSTEMTIME& firstUtc) {
  CMOLRA player;
  const LONG opened = player.OpenFS(1);
  if (opened != FS_OK) {
    std::printf("playback: OpenFS(1) failed with %s\n", ResultName(opened));
    return;
  }
  SYSTEMTIME first = firstUtc;
  player.ChangeSystemToLocalTime(first, 1);
  std::printf("playback from %04u-%02u-%02u %02u:%02u:%02u local\n", first.wYear, first.wMonth,
              first.wDay, first.wHour, first.wMinute, first.wSecond);
  std::vector<unsigned char> payload(molra::kMaxChunkLength);
  _tagCHUNKHDR header{};
  header.stTime = first;
  header.stTime.wSecond = 0;
  header.stTime.wMilliseconds = 0;
  header.chChannel = 0;
  LONG result = player.ReadData(&header, payload.data(), 1);
  PrintChunk("minute", result, header);
  // A run that starts inside a minute an earlier run ends in shares it,
  // and the minute plays from its start: the run's own first second then.
  if (result == FS_OK && header.stTime.wSecond < first.wSecond) {
    header = _tagCHUNKHDR{};
    header.stTime = first;
    header.stTime.wMilliseconds = 0;
    header.chChannel = 0;
    result = player.ReadData(&header, payload.data(), 1);
    PrintChunk("second", result, header);
  }
  if (result != FS_OK) return;
  // Each step hands back a whole header; the channel is asked afresh.
  for (int step = 0; step < 8; ++step) {
    header.chChannel = 0;
    result = player.ReadNextData(&header, payload.data(), 1);
    PrintChunk("next", result, header);
    if (result != FS_OK) return;
  }
  // A skip hands out each channel's key frame of a second in turn: the
  // first of each second is shown, the rest only counted.
  int seconds = 0, more = 0;
  WORD shown = 60;
  for (int skip = 0; skip < 4 * kChannels && seconds < 4; ++skip) {
    header.chChannel = -1;
    result = player.ReadNextData2(&header, payload.data(), 10, 1);
    if (result == FS_OK && header.stTime.wSecond == shown) {
      ++more;
      continue;
    }
    if (more > 0) std::printf("  %-6s and %d more key frames of that second\n", "", more);
    more = 0;
    PrintChunk("skip", result, header);
    if (result != FS_OK) return;
    shown = header.stTime.wSecond;
    ++seconds;
  }
  if (more > 0) std::printf("  %-6s and %d more key frames of that second\n", "", more);
  player.CloseFS();
}

void PrintGrid(const char* title, const DWORD* cells) {
  std::printf("%s\n  channel  000000000011111111112222\n           012345678901234567890123\n", title);
  for (int channel = 0; channel < kChannels; ++channel) {
    std::printf("  %7d  ", channel);
    for (int hour = 0; hour < 24; ++hour) {
      const DWORD cell = cells[channel * 24 + hour];
      std::putchar(cell == 0 ? '.' : (cell & 0xFF000000u) != 0 ? 'E' : '#');
    }
    std::printf("\n");
  }
}

// The timeline a player shows: the days of this month that hold
// recordings, and the hours of today (UTC) per channel, E where an event
// was marked.
void PrintTimeline() {
  CMOLRA player;
  if (player.OpenFS(1) != FS_OK) return;
  const std::time_t now = std::time(nullptr);
  std::tm local;
  localtime_r(&now, &local);
  int days[31];
  player.GetSaveDateInfo(local.tm_year + 1900, local.tm_mon + 1, days, 31);
  std::printf("timeline, days of %04d-%02d holding recordings:", local.tm_year + 1900,
              local.tm_mon + 1);
  for (int d = 0; d < 31; ++d) {
    if (days[d]) std::printf(" %d", d + 1);
  }
  std::printf("\n");
  std::tm utc;
  gmtime_r(&now, &utc);
  DWORD cells[16 * 24];
  CWnd progress;
  player.GetSaveTimeInfo(utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, 0, cells, &progress);
  char title[96];
  std::snprintf(title, sizeof title, "timeline, UTC day %04d-%02d-%02d (# recorded, E events; %s%% of the ring read)",
                utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, progress.GetWindowText().Str().c_str());
  PrintGrid(title, cells);
  player.CloseFS();
}

// The quick search's answer for today's local day: an hour grid per channel.
void PrintDayFile(CMOLRA& store) {
  const std::time_t now = std::time(nullptr);
  std::tm local;
  localtime_r(&now, &local);
  SYSTEMTIME day{static_cast<WORD>(local.tm_year + 1900), static_cast<WORD>(local.tm_mon + 1), 0,
                 static_cast<WORD>(local.tm_mday), 0, 0, 0, 0};
  char rows[16 * 25];
  store.SaveTimeRead(nullptr, day, rows);
  std::printf("quick search, local day %04u-%02u-%02u (hours 0 to 23, # recorded)\n", day.wYear,
              day.wMonth, day.wDay);
  std::printf("  channel  000000000011111111112222\n           012345678901234567890123\n");
  for (int channel = 0; channel < kChannels; ++channel) {
    std::printf("  %7d  ", channel);
    for (int hour = 0; hour < 24; ++hour) std::putchar(rows[channel * 25 + 1 + hour] ? '#' : '.');
    std::printf("\n");
  }
}

// The catalogue as a table, each basket's span in local time.
void PrintBaskets(CMOLRA& store) {
  PrintCatalogue(store);
  std::printf("%-6s %-24s %-20s %-20s %-20s %5s %7s %5s\n", "basket", "path",
              "created (UTC)", "first (local)", "last (local)", "days", "chunks", "flags");
  for (DWORD n = 0; n < store.GetFSInfo()->dwBaskets; ++n) {
    _tagFSBSKINFO info;
    if (store.GetBaksetInfo(static_cast<LONG>(n), &info) != FS_OK) break;
    std::printf("%-6u %-24s", static_cast<unsigned>(n), info.szPath);
    PrintStamp(info.stCreated);
    PrintStamp(info.stFirst);
    PrintStamp(info.stLast);
    std::printf(" %5u %7u %5u\n", static_cast<unsigned>(info.dwDays),
                static_cast<unsigned>(info.dwChunks), static_cast<unsigned>(info.dwFlags));
  }
}

// Ages the store to a retention time: one oldest basket per call, until a
// call finds nothing older than the cut-off.
void Retain(DemoRecorder& store, unsigned days) {
  std::printf("retention of %u days\nbefore:\n", days);
  store.CallLoadFSinfo();
  PrintBaskets(store);
  _tagFSBSKINFO oldest;
  int treated = 0;
  for (DWORD n = 0; n < store.GetFSInfo()->dwBaskets; ++n) {
    if (store.GetOldestBasketInfoAndBasketControl(days, &oldest) == 0) break;
    ++treated;
  }
  std::printf("after %d baskets erased or cut:\n", treated);
  PrintBaskets(store);
}

const char kUsage[] =
    "usage: molra-demo [--retain DAYS]\n"
    "\n"
    "Lays out a store below ./molra-drives if there is none, records two minutes of a\n"
    "synthetic 16-channel stream into it behind what it holds, plays some of it back and\n"
    "prints the zone, the timeline and the catalogue.\n"
    "\n"
    "  --retain DAYS  instead, age the store to a retention time of DAYS days\n"
    "  --help         print this\n";

// One line naming the problem, then the usage; a refused command line
// has touched no store.
int Refuse(const std::string& problem) {
  std::fprintf(stderr, "molra-demo: %s\n%s", problem.c_str(), kUsage);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string retain;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (arg != "--retain") return Refuse("unknown option " + arg);
    if (i + 1 == argc) return Refuse("--retain needs a number of days");
    retain = argv[++i];
    const std::string problem = molra_tools::RetentionDaysProblem(retain);
    if (!problem.empty()) return Refuse("--retain: " + problem);
  }

  DemoRecorder store;
  store.CallLoadFSinfo();
  if (!retain.empty()) {
    Retain(store, molra_tools::RetentionDays(retain));
    return 0;
  }
  if (store.GetFSInfo()->dwBaskets == 0) {
    std::printf("no store yet: laying out 2 baskets on drive D and 1 on drive E\n");
    _tagBSKLOC drives[2] = {{3, 2}, {4, 1}};
    const LONG result = store.CreateFS(drives, 2);
    if (result != FS_OK) {
      std::printf("CreateFS failed with %d\n", static_cast<int>(result));
      return 1;
    }
  }
  PrintZone(store);
  std::printf("recording %d s of %d channels at %d frames a second\n", kSeconds, kChannels, kFps);
  SYSTEMTIME first{};
  if (!Record(store, &first)) return 1;
  store.CallLoadFSinfo();
  Play(first);
  PrintTimeline();
  PrintDayFile(store);
  PrintBaskets(store);
  return 0;
}
