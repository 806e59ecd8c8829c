// Fixed places of the store and the default head of its catalogue.
#pragma once

#include <cstring>

#include "molra/records.h"

namespace molra {

constexpr char kHomeDir[] = "C:\\FSDIR";
constexpr char kCatalogPath[] = "C:\\FSDIR\\MOLRA.CFT";
constexpr char kDataExt[] = ".CDT";
constexpr char kIndexExt[] = ".CIN";
constexpr char kTableExt[] = ".CTA";

// The head of a catalogue that holds no basket yet.
inline void SetDefaultHead(_tagFSHDR* head) {
  std::memset(head, 0, sizeof *head);
  std::memcpy(head->szMagic, "MOLRA3", 6);
  head->wVersion = 0x0100;
}

}  // namespace molra
