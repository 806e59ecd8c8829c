// One channel's chunks of a time range, read through the playback API from
// a key frame on, so that the clip decodes from its first frame.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "molra/molra.h"

namespace molra_tools {

struct Chunk {
  std::vector<std::uint8_t> bytes;
  long long stamp = 0;  // UTC milliseconds
  bool key = false;
};

class ClipReader {
 public:
  // `player` is open for playback, in a zone of UTC.
  ClipReader(CMOLRA& player, int channel);

  enum class Start { kFound, kNothing, kNoKeyFrame };
  // Places the reader on the clip's first frame and hands it out: the
  // first chunk at or after `from` when it is a key frame, else the key
  // frame before it; without one (in the five minutes before), the first
  // key frame before `to`.
  Start Begin(long long from, long long to, Chunk* first);
  // The channel's next chunk: FS_OK, FS_END_OF_DATA, or the store's failure.
  LONG Next(Chunk* chunk);

 private:
  // The first chunk at or after `from` and before `to`.
  bool FirstInRange(long long from, long long to, Chunk* chunk);
  // The channel's first chunk at or after the minute of `from`, found by
  // seeking that minute, then the later ones the day tables mark.
  bool Land(long long from, long long to, Chunk* chunk);
  LONG Seek(long long minute, Chunk* chunk);
  // A seek (to `at`) or a step of the channel into `chunk`.
  LONG Read(LONG (CMOLRA::*call)(_tagCHUNKHDR*, unsigned char*), Chunk* chunk,
            const SYSTEMTIME* at = nullptr);

  CMOLRA& m_player;
  int m_channel;
  std::vector<unsigned char> m_payload;
};

}  // namespace molra_tools
