// Where the quick-search day files lie: one file of 16 rows per UTC day in
// "C:\FSDIR\QS", named after the day.
#pragma once

#include <cstdio>

#include "disk/store_paths.h"
#include "molra/records.h"

namespace molra {

constexpr char kDayFileExt[] = ".sti";
constexpr DWORD kDayFileRows = 16;
constexpr DWORD kDayFileSize = kDayFileRows * sizeof(_tagSTIROW);  // 400
constexpr char kMarked = 0x31;

// The path of the day file of a date.
class DayFilePath {
 public:
  DayFilePath(int year, int month, int day) {
    std::snprintf(m_text, sizeof m_text, "%s\\%04d%02d%02d%s", kQuickSearchDir, year, month, day,
                  kDayFileExt);
  }
  explicit DayFilePath(const SYSTEMTIME& st) : DayFilePath(st.wYear, st.wMonth, st.wDay) {}
  operator const char*() const { return m_text; }  // NOLINT: used as a path

 private:
  char m_text[64];
};

}  // namespace molra
