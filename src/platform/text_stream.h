// The runtime's text streams, as far as the store reads them.
#pragma once

#include <cstddef>

namespace molra {
namespace platform {

// Opens an existing file for reading and writing (others may read and
// write it too; a missing file is not made) and reads up to `size` bytes
// as a text stream: CR LF reads as LF, and Ctrl-Z ends the text. False
// when the file cannot be opened; `got` receives the bytes read.
bool ReadTextStream(const char* path, void* buffer, size_t size, size_t* got);

}  // namespace platform
}  // namespace molra
