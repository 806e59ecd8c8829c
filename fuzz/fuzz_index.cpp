// The index of each basket as its file holds it (a foreign header over
// nodes is rebuilt in memory): searched by minute and second, walked both
// ways across the ring, skipped through by key frames, with a host whose
// message step closes, reopens or cancels the store in mid-walk.
#include "play.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  using namespace molra_fuzz;
  Case run(data, size, kAskedDay);
  Script& script = run.script;
  Host store;
  ExpectCode(store.OpenFS(1));
  Play(store, script, false);
  return 0;
}
