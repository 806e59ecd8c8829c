// Checking a whole store against what its formats imply, without writing a
// byte: the catalogue, each basket's data head, index tree and day tables,
// and the quick-search day files. Used by the `molra verify` command.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "molra/types.h"

namespace molra {

// One fault: the file (the store's own drive-letter path), the byte offset
// in it, and what is wrong there, in words.
struct Finding {
  std::string file;
  DWORD offset = 0;
  std::string what;
};

// Called after each basket with the baskets done and the baskets in all.
using VerifyProgress = std::function<void(DWORD done, DWORD total)>;

// Verifies the store that the drive roots of molra::platform name. False
// when there is no catalogue to verify (nothing else is then read);
// otherwise true, with `findings` empty for a sound store. Safe beside a
// running recorder: what the recorder is writing at that moment is not a
// fault.
bool VerifyStore(std::vector<Finding>* findings, const VerifyProgress& progress = nullptr);

}  // namespace molra
