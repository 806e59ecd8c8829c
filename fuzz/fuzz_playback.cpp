// The data file as playback reads it: the data head at the open, then the
// chunks that seeks, steps and key-frame skips hand out, in local time,
// with the strict chunk test on and off.
#include "play.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  using namespace molra_fuzz;
  Case run(data, size, kAskedDay);
  Script& script = run.script;
  molra::platform::SetStrictChunks(script.Byte() & 1);
  Host store;
  ExpectCode(store.OpenFS(1));
  Play(store, script, true);
  return 0;
}
