// The reads of a player, driven by a script: seeks aimed at the stamps the
// store's own index and catalogue hold, steps, key-frame skips, and a host
// whose message step closes, reopens or cancels the store mid-walk.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "molra/molra.h"
#include "store_input.h"

namespace molra_fuzz {

// Stops the run on a broken promise of the interface.
inline void Expect(bool kept, const char* what) {
  if (kept) return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

inline void ExpectCode(LONG result) {
  Expect(result >= FS_OK && result <= FS_BEGIN_OF_DATA, "a result outside the codes");
}

// A host that checks every chunk handed to it.
class Host : public CMOLRA {
 public:
  void OnReadingData(_tagCHUNKHDR* header) override;
};

// A channel from a script byte: mostly -1 to 15, now and then any.
signed char Channel(Script& script);

// Plays the script on a store opened for playback; `local` reads through
// the local-time calls, else through the UTC ones.
void Play(Host& store, Script& script, bool local);

}  // namespace molra_fuzz
