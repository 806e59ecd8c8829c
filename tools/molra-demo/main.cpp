// The demo host: makes a store on two drives below ./molra-drives (the
// library's default drive roots), prints the zone it reads and the
// catalogue with each basket's span in local time.
#include <cstdio>
#include <string>

#include "molra/molra.h"

namespace {

class DemoRecorder : public CMOLRA {
 public:
  int OnCreatingFS(char* path, DWORD ordinal) override {
    std::printf("  making basket %u: %s\n", static_cast<unsigned>(ordinal), path);
    return 1;
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
  store.CallLoadFSinfo();
  PrintZone(store);
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
