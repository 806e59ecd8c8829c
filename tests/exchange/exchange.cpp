// One scripted recording under a fixed clock and zone, and its playback.
//
//   molra_exchange record <dir>   lays out a store below <dir> and records
//   molra_exchange play <dir>     plays back the store below <dir>
//
// Both print the chunks as a count and a digest of their headers and
// payloads in recording order; play adds a digest of the timeline. A store
// recorded on one platform must give the same bytes as on the other, and
// play back to the same lines there.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "molra/molra.h"

namespace {

constexpr int kSeconds = 600;  // 23:55 to 00:05 UTC: two days in the tables
constexpr int kChannels = 4;
const SYSTEMTIME kStart{2010, 10, 6, 30, 23, 55, 0, 0};

// FNV-1a, 64 bits.
struct Digest {
  std::uint64_t value = 14695981039346656037ull;
  void Add(const void* data, size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < size; ++i) value = (value ^ bytes[i]) * 1099511628211ull;
  }
};

// A central European zone: an hour east, daylight time from the last
// Sunday of March to the last Sunday of October.
TIME_ZONE_INFORMATION Zone() {
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = -60;
  zone.DaylightBias = -60;
  zone.DaylightDate = SYSTEMTIME{0, 3, 0, 5, 2, 0, 0, 0};
  zone.StandardDate = SYSTEMTIME{0, 10, 0, 5, 3, 0, 0, 0};
  return zone;
}

void Setup(const std::string& dir) {
  molra::platform::SetDriveRoot('C', dir + "/c");
  molra::platform::SetDriveRoot('D', dir + "/d");
  const TIME_ZONE_INFORMATION zone = Zone();
  molra::platform::SetTimeZone(&zone);
  SYSTEMTIME now = kStart;
  now.wMinute = 50;
  molra::platform::SetClock(&now);
}

// The chunk of channel `channel` at second `second`: a key frame every ten
// seconds, sizes and bytes that vary, about 70 MB in all (one rollover).
void MakeChunk(int second, int channel, _tagCHUNKHDR* header, std::vector<BYTE>* payload) {
  const bool key = second % 10 == 0;
  const DWORD length = key ? 60000 + (second * channel % 7) * 1000
                           : 20000 + ((second * 31 + channel * 17) % 40) * 500;
  std::memset(header, 0, sizeof *header);
  header->byTag = 1;
  header->stTime = kStart;
  const int minute = kStart.wMinute + second / 60;
  header->stTime.wMinute = static_cast<WORD>(minute % 60);
  header->stTime.wSecond = static_cast<WORD>(second % 60);
  header->stTime.wMilliseconds = static_cast<WORD>(channel * 40);
  if (minute >= 60) {
    header->stTime.wDay = 31;
    header->stTime.wDayOfWeek = 0;
    header->stTime.wHour = 0;
  }
  header->byHostData[0] = static_cast<BYTE>(second);
  header->chChannel = static_cast<signed char>(channel);
  header->dwInfo = (key ? 0x10000u : 0u) | (second % 97 == 0 ? 0x01000000u : 0u);
  header->dwLength = length;
  payload->resize(length);
  for (DWORD i = 0; i < length; ++i) {
    (*payload)[i] = static_cast<BYTE>(i * 7 + static_cast<DWORD>(second) * 13 + channel);
  }
}

void Print(int chunks, const Digest& digest) {
  std::printf("chunks %d digest %016llx\n", chunks, static_cast<unsigned long long>(digest.value));
}

int Record(const std::string& dir) {
  Setup(dir);
  CMOLRA store;
  store.CallLoadFSinfo();
  _tagBSKLOC drives[] = {{3, 2}};
  if (store.CreateFS(drives, 1) != FS_OK || store.OpenFS(0) != FS_OK) {
    std::fprintf(stderr, "no store below %s\n", dir.c_str());
    return 1;
  }
  Digest digest;
  int chunks = 0;
  std::vector<BYTE> payload;
  for (int second = 0; second < kSeconds; ++second) {
    for (int channel = 0; channel < kChannels; ++channel) {
      _tagCHUNKHDR header;
      MakeChunk(second, channel, &header, &payload);
      DWORD remaining = 0;
      if (store.SaveData(&header, payload.data(), &remaining, 0) != FS_OK) {
        std::fprintf(stderr, "save %d of channel %d failed\n", second, channel);
        return 1;
      }
      if (store.GetIFrame(channel)) store.SetIFrame(channel);
      if (second % 60 == 0) store.SaveTimeWrite(header.stTime, static_cast<char>(channel));
      digest.Add(&header, sizeof header);
      digest.Add(payload.data(), payload.size());
      ++chunks;
    }
  }
  store.CloseFS();
  Print(chunks, digest);
  return 0;
}

int Play(const std::string& dir) {
  Setup(dir);
  CMOLRA store;
  if (store.OpenFS(1) != FS_OK) {
    std::fprintf(stderr, "no store below %s\n", dir.c_str());
    return 1;
  }
  Digest digest;
  int chunks = 0;
  std::vector<BYTE> payload(molra::kMaxChunkLength);
  _tagCHUNKHDR header{};
  header.stTime = kStart;
  header.chChannel = -1;
  LONG result = store.ReadDataEx(&header, payload.data());
  for (; result == FS_OK; result = store.ReadNextDataEx(&header, payload.data())) {
    digest.Add(&header, sizeof header);
    digest.Add(payload.data(), header.dwLength);
    ++chunks;
    header.chChannel = -1;
  }
  Print(chunks, digest);
  if (result != FS_END_OF_DATA) std::printf("ended by %ld\n", static_cast<long>(result));

  // What the timeline answers: the local days of the month, the hour cells
  // of both UTC days, and the minutes of each channel in the local hours
  // around the change back from daylight time.
  Digest timeline;
  int days[31] = {};
  result = store.GetSaveDateInfo(2010, 10, days, 31);
  timeline.Add(&result, sizeof result);
  timeline.Add(days, sizeof days);
  for (const LONG day : {30, 31}) {
    DWORD cells[16 * 24] = {};
    result = store.GetSaveTimeInfo(2010, 10, day, 0, cells, nullptr);
    timeline.Add(&result, sizeof result);
    timeline.Add(cells, sizeof cells);
  }
  for (LONG channel = 0; channel < kChannels; ++channel) {
    for (const LONG hour : {1, 2}) {
      DWORD cells[60] = {};
      result = store.GetSaveMinuteInfo(2010, 10, 31, hour, 0, channel, cells, 1);
      timeline.Add(&result, sizeof result);
      timeline.Add(cells, sizeof cells);
    }
  }
  std::printf("timeline %016llx\n", static_cast<unsigned long long>(timeline.value));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc == 3 ? argv[1] : "";
  if (mode == "record") return Record(argv[2]);
  if (mode == "play") return Play(argv[2]);
  std::fprintf(stderr, "usage: molra_exchange record|play <dir>\n");
  return 2;
}
