// Checking one basket: its three files against their formats, against
// each other and against the basket's catalogue record.
#pragma once

#include <vector>

#include "molra/records.h"
#include "verify/store_verifier.h"

namespace molra {
namespace verify {

// `listed` is the record as the catalogue was read at the start; the
// basket's files are read after it, and its record again after them.
void VerifyBasket(DWORD number, const _tagFSBSKINFO& listed, std::vector<Finding>* findings);

}  // namespace verify
}  // namespace molra
