// The index of each basket as its file holds it (a foreign header over
// nodes is rebuilt in memory): searched by minute and second, walked both
// ways across the ring, skipped through by key frames, with a host whose
// message step closes, reopens or cancels the store in mid-walk.
#include "play.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  using namespace molra_fuzz;
  const Input input = Begin(data, size);
  Script script(input.script);
  SetUpMachine(script);
  LayOut(input, SYSTEMTIME{2010, 11, 4, 18, 0, 0, 0, 0});
  Host store;
  ExpectCode(store.OpenFS(1));
  Play(store, script, false);
  return 0;
}
