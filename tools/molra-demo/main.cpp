// The demo host: makes a store on two drives below ./molra-drives (the
// library's default drive roots), records two minutes of a synthetic
// 16-channel stream into it, and prints the zone it reads and the
// catalogue with each basket's span in local time.
#include <chrono>
#include <cstdio>
#include <ctime>
#include <tuple>
#include <string>
#include <vector>

#include "molra/molra.h"

namespace {

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

bool Record(DemoRecorder& store) {
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
  std::vector<BYTE> payload(20000);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<BYTE>(i);
  long saved = 0, keyFrames = 0, events = 0, rollovers = 0;
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
              "%ld basket changes\n",
              saved, bytes / 1e6, kChannels, keyFrames, events, rollovers);
  store.CloseFS();
  return true;
}

}  // namespace

int main() {
  DemoRecorder store;
  store.CallLoadFSinfo();
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
  if (!Record(store)) return 1;
  store.CallLoadFSinfo();
  PrintCatalogue(store);
  std::printf("%-6s %-24s %-20s %-20s %-20s %5s %7s %5s\n", "basket", "path",
              "created (UTC)", "first (local)", "last (local)", "days", "chunks", "flags");
  for (DWORD n = 0; n < store.GetFSInfo()->dwBaskets; ++n) {
    _tagFSBSKINFO record;
    if (store.GetBaksetInfo(static_cast<LONG>(n), &record) != FS_OK) break;
    const _tagFSBSKINFO* info = &record;
    std::printf("%-6u %-24s", static_cast<unsigned>(n), info->szPath);
    PrintStamp(info->stCreated);
    PrintStamp(info->stFirst);
    PrintStamp(info->stLast);
    std::printf(" %5u %7u %5u\n", static_cast<unsigned>(info->dwDays),
                static_cast<unsigned>(info->dwChunks), static_cast<unsigned>(info->dwFlags));
  }
  return 0;
}
