// A look at the last unit of a stream through the decoder: a stream cut
// off inside a slice splits as cleanly as a whole one, so only decoding
// tells the last picture from a torn one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace molra_tools {

// `units` are access units in stream order, the first a key frame: ""
// when the last one decodes without a fault, else what went wrong.
std::string LastUnitFault(const std::vector<std::vector<std::uint8_t>>& units);

// libav's words for one of its error codes.
std::string LibavErrorText(int error);

}  // namespace molra_tools
