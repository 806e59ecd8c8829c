// The store verifier behind `molra verify`, which reads every file of a
// store, damaged or not, and writes nothing.
#include <vector>

#include "play.h"
#include "verify/store_verifier.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  using namespace molra_fuzz;
  const Case run(data, size, kAskedDay);
  std::vector<molra::Finding> findings;
  Expect(molra::VerifyStore(&findings) || findings.empty(), "findings without a store");
  return 0;
}
