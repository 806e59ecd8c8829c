#include "platform/text_stream.h"

#include <vector>

#include "platform/env.h"

namespace molra {
namespace platform {

bool ReadTextStream(const char* path, void* buffer, size_t size, size_t* got) {
  *got = 0;
  std::unique_ptr<File> file = CurrentEnv()->OpenFile(
      path, Access::kReadWrite, kShareRead | kShareWrite, Disposition::kOpenExisting);
  if (!file) return false;
  // Every byte of text takes at most two raw bytes, plus one to see
  // whether a last CR is followed by LF.
  std::vector<unsigned char> raw(2 * size + 1);
  DWORD read = 0;
  if (!file->Read(raw.data(), static_cast<DWORD>(raw.size()), &read)) read = 0;
  auto* out = static_cast<unsigned char*>(buffer);
  for (DWORD i = 0; i < read && *got < size; ++i) {
    if (raw[i] == 0x1A) break;
    if (raw[i] == '\r' && i + 1 < read && raw[i + 1] == '\n') continue;
    out[(*got)++] = raw[i];
  }
  return true;
}

}  // namespace platform
}  // namespace molra
