#include <cstdio>

#include "commands.h"
#include "store/catalogue_file.h"

namespace molra_tools {

int Refuse(const std::string& problem) {
  std::fprintf(stderr, "molra: %s\n", problem.c_str());
  return kExitRefused;
}

bool CatalogueExists() { return molra::CatalogueFile::Exists(); }

std::string Stamp(const SYSTEMTIME& stamp) {
  if (stamp.wYear == 0) return "";
  char text[48];  // room for a damaged stamp's widest fields
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", stamp.wYear, stamp.wMonth,
                stamp.wDay, stamp.wHour, stamp.wMinute, stamp.wSecond);
  return text;
}

std::string Printable(const char* text, size_t size) {
  std::string out;
  for (size_t i = 0; i < size && text[i] != 0; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    out += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
  }
  return out;
}

}  // namespace molra_tools
