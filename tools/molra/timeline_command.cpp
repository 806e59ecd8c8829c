// timeline: which hours of a UTC day, or which minutes of one channel's
// hour, hold recordings, as the baskets' day tables tell.
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "molra/molra.h"
#include "result_names.h"

namespace molra_tools {

namespace {

constexpr int kChannels = 16;
constexpr int kHours = 24;
constexpr int kMinutes = 60;

// '.' nothing, '#' recorded, 'E' recorded with an event (the cell's top byte).
char Cell(DWORD cell) { return cell == 0 ? '.' : (cell & 0xFF000000u) != 0 ? 'E' : '#'; }

// The two header lines over a row of `count` cells: tens, then units.
void PrintRuler(const std::string& label, int count) {
  std::printf("%s", label.c_str());
  for (int i = 0; i < count; ++i) std::putchar(static_cast<char>('0' + i / 10));
  std::printf("\n%s", std::string(label.size(), ' ').c_str());
  for (int i = 0; i < count; ++i) std::putchar(static_cast<char>('0' + i % 10));
  std::printf("\n");
}

bool AllZero(const DWORD* cells, int count) {
  for (int i = 0; i < count; ++i) {
    if (cells[i] != 0) return false;
  }
  return true;
}

}  // namespace

int RunTimeline(const Day& day, int channel, int hour, bool json) {
  if (!CatalogueExists()) {
    return Refuse(std::string("no store: the catalogue ") + kCataloguePath + " does not exist");
  }
  CMOLRA player;
  const LONG opened = player.OpenFS(1);
  if (opened != FS_OK) return Refuse("the store cannot be opened: " + DescribeResult(opened));
  char dayText[16];
  std::snprintf(dayText, sizeof dayText, "%04d-%02d-%02d", day.year, day.month, day.day);

  if (channel < 0) {
    DWORD cells[kChannels * kHours] = {};
    const LONG result = player.GetSaveTimeInfo(day.year, day.month, day.day, 0, cells, nullptr);
    if (result != FS_OK) return Refuse("the hours cannot be read: " + DescribeResult(result));
    if (AllZero(cells, kChannels * kHours)) {
      std::fprintf(stderr, "molra: nothing recorded on %s (UTC)\n", dayText);
      return kExitFound;
    }
    if (json) {
      nlohmann::ordered_json out{
          {"day", dayText}, {"zone", "UTC"}, {"hours", nlohmann::ordered_json::array()}};
      for (int c = 0; c < kChannels; ++c) {
        out["hours"].push_back(std::vector<DWORD>(cells + c * kHours, cells + (c + 1) * kHours));
      }
      std::printf("%s\n", out.dump(2).c_str());
      return kExitOk;
    }
    std::printf("%s UTC, hours 0 to 23 (# recorded, E with events)\n", dayText);
    PrintRuler("  channel  ", kHours);
    for (int c = 0; c < kChannels; ++c) {
      std::printf("  %7d  ", c);
      for (int h = 0; h < kHours; ++h) std::putchar(Cell(cells[c * kHours + h]));
      std::printf("\n");
    }
    return kExitOk;
  }

  // With the zone set to UTC the local hour the query asks for is the UTC hour.
  DWORD cells[kMinutes] = {};
  const LONG result =
      player.GetSaveMinuteInfo(day.year, day.month, day.day, hour, 0, channel, cells, 0);
  if (result != FS_OK) return Refuse("the minutes cannot be read: " + DescribeResult(result));
  if (AllZero(cells, kMinutes)) {
    std::fprintf(stderr, "molra: nothing recorded on channel %d from %s %02d:00 to %02d:59 (UTC)\n",
                 channel, dayText, hour, hour);
    return kExitFound;
  }
  if (json) {
    const nlohmann::ordered_json out{{"day", dayText},
                                     {"zone", "UTC"},
                                     {"hour", hour},
                                     {"channel", channel},
                                     {"minutes", std::vector<DWORD>(cells, cells + kMinutes)}};
    std::printf("%s\n", out.dump(2).c_str());
    return kExitOk;
  }
  std::printf(
      "%s %02d:00 to %02d:59 UTC, channel %d, minutes 0 to 59 (# recorded, E with events)\n",
      dayText, hour, hour, channel);
  PrintRuler("  ", kMinutes);
  std::printf("  ");
  for (int m = 0; m < kMinutes; ++m) std::putchar(Cell(cells[m]));
  std::printf("\n");
  return kExitOk;
}

}  // namespace molra_tools
