// Fixed places of the store and the default head of its catalogue.
#pragma once

#include <cstdio>
#include <cstring>

#include "disk/store_paths.h"
#include "molra/records.h"

namespace molra {

constexpr char kDataExt[] = ".CDT";
constexpr char kIndexExt[] = ".CIN";
constexpr char kTableExt[] = ".CTA";

// One file of a basket: its catalogue path with the extension behind it.
class BasketFile {
 public:
  BasketFile(const char* basketPath, const char* ext) {
    std::snprintf(m_text, sizeof m_text, "%s%s", basketPath, ext);
  }
  operator const char*() const { return m_text; }  // NOLINT: used as a path

 private:
  char m_text[sizeof(_tagFSBSKINFO::szPath) + 8];
};

// The data head of a basket that holds no chunk: the next goes right behind it.
inline _tagDATAHDR EmptyDataHead() {
  _tagDATAHDR head{};
  head.wVersion = 0x0100;
  std::memcpy(head.szMagic, "MOLRA", sizeof head.szMagic);
  head.dwWritePos = sizeof head;
  return head;
}

// The head of a catalogue that holds no basket yet.
inline void SetDefaultHead(_tagFSHDR* head) {
  std::memset(head, 0, sizeof *head);
  std::memcpy(head->szMagic, "MOLRA3", 6);
  head->wVersion = 0x0100;
}

}  // namespace molra
