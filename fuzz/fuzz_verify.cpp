// The store verifier behind `molra verify`, which reads every file of a
// store, damaged or not, and writes nothing.
#include <vector>

#include "play.h"
#include "verify/store_verifier.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  using namespace molra_fuzz;
  const Input input = Begin(data, size);
  Script script(input.script);
  SetUpMachine(script);
  LayOut(input, SYSTEMTIME{2010, 11, 4, 18, 0, 0, 0, 0});
  std::vector<molra::Finding> findings;
  Expect(molra::VerifyStore(&findings) || findings.empty(), "findings without a store");
  return 0;
}
