#include "clip_reader.h"

#include <algorithm>

#include "utc_time.h"

namespace molra_tools {

namespace {

constexpr long long kMinute = 60000;
constexpr long long kHour = 60 * kMinute;
constexpr long long kDay = 24 * kHour;
// How far back a key frame is looked for: a longer group of pictures than
// this is not met in recordings.
constexpr long long kKeyFrameReach = 5 * kMinute;

long long Floor(long long value, long long grain) {
  const long long q = value / grain;
  return (q * grain > value ? q - 1 : q) * grain;
}

}  // namespace

ClipReader::ClipReader(CMOLRA& player, int channel)
    : m_player(player), m_channel(channel), m_payload(molra::kMaxChunkLength) {}

LONG ClipReader::Read(LONG (CMOLRA::*call)(_tagCHUNKHDR*, unsigned char*), Chunk* chunk,
                      const SYSTEMTIME* at) {
  _tagCHUNKHDR header{};
  header.chChannel = static_cast<signed char>(m_channel);
  if (at != nullptr) header.stTime = *at;
  const LONG result = (m_player.*call)(&header, m_payload.data());
  if (result != FS_OK) return result;
  chunk->stamp = MillisecondsOf(header.stTime);
  chunk->key = (header.dwInfo & 0x10000) != 0;
  chunk->bytes.assign(m_payload.begin(), m_payload.begin() + header.dwLength);
  return FS_OK;
}

LONG ClipReader::Seek(long long minute, Chunk* chunk) {
  const SYSTEMTIME at = StampAt(minute);
  return Read(&CMOLRA::ReadDataEx, chunk, &at);
}

LONG ClipReader::Next(Chunk* chunk) { return Read(&CMOLRA::ReadNextDataEx, chunk); }

bool ClipReader::Land(long long from, long long to, Chunk* chunk) {
  const long long firstMinute = Floor(from, kMinute);
  if (Seek(firstMinute, chunk) == FS_OK) return true;

  // A seek finds only a recorded minute: the later ones come from the day
  // tables, within the span the ring holds.
  long long spanFirst = to, spanEnd = 0;
  const DWORD baskets = m_player.GetFSInfo()->dwBaskets;
  for (DWORD n = 0; n < baskets; ++n) {
    _tagFSBSKINFO record{};
    if (m_player.GetBaksetInfo(static_cast<LONG>(n), &record) == FS_OK &&
        record.stLast.wYear != 0) {
      spanFirst = std::min(spanFirst, MillisecondsOf(record.stFirst));
      spanEnd = std::max(spanEnd, MillisecondsOf(record.stLast));
    }
  }
  const long long end = std::min(to, spanEnd + 1);
  for (long long day = Floor(std::max(firstMinute, spanFirst), kDay); day < end; day += kDay) {
    const SYSTEMTIME d = StampAt(day);
    DWORD hours[16 * 24] = {};
    if (m_player.GetSaveTimeInfo(d.wYear, d.wMonth, d.wDay, 0, hours, nullptr) != FS_OK) continue;
    for (int h = 0; h < 24; ++h) {
      const long long hour = day + h * kHour;
      if (hour + kHour <= firstMinute + kMinute || hour >= end) continue;
      if (hours[m_channel * 24 + h] == 0) continue;
      DWORD minutes[60] = {};
      if (m_player.GetSaveMinuteInfo(d.wYear, d.wMonth, d.wDay, h, 0, m_channel, minutes, 0) !=
          FS_OK) {
        continue;
      }
      for (int m = 0; m < 60; ++m) {
        const long long minute = hour + m * kMinute;
        if (minute <= firstMinute || minute >= end || minutes[m] == 0) continue;
        if (Seek(minute, chunk) == FS_OK) return true;
      }
    }
  }
  return false;
}

bool ClipReader::FirstInRange(long long from, long long to, Chunk* chunk) {
  if (!Land(from, to, chunk)) return false;
  while (chunk->stamp < from) {
    if (Next(chunk) != FS_OK) return false;
  }
  return chunk->stamp < to;
}

ClipReader::Start ClipReader::Begin(long long from, long long to, Chunk* first) {
  if (!FirstInRange(from, to, first)) return Start::kNothing;
  if (first->key) return Start::kFound;
  const long long inRange = first->stamp;
  Chunk back;
  while (Read(&CMOLRA::ReadPrevDataEx, &back) == FS_OK && back.stamp >= inRange - kKeyFrameReach) {
    if (back.key) {
      *first = std::move(back);
      return Start::kFound;
    }
  }
  // None before it: the clip starts at the first key frame in the range.
  if (!FirstInRange(from, to, first)) return Start::kNothing;
  while (!first->key) {
    if (Next(first) != FS_OK || first->stamp >= to) return Start::kNoKeyFrame;
  }
  return Start::kFound;
}

}  // namespace molra_tools
