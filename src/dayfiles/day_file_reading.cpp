// Reading the quick-search day files: one UTC day as it stands, or a local
// day put together from the two UTC days it spans.
#include <cstring>
#include <memory>

#include "dayfiles/day_file_paths.h"
#include "molra/molra.h"
#include "platform/env.h"
#include "platform/settings.h"
#include "time/zone_clock.h"

using molra::detail::CZoneClock;

namespace platform = molra::platform;

namespace {

// Readers share with other readers only; a missing file is made empty.
std::unique_ptr<platform::File> OpenForReading(const char* path) {
  return platform::CurrentEnv()->OpenFile(path, platform::Access::kRead, platform::kShareRead,
                                          platform::Disposition::kOpenAlways);
}

// Reads the 16 rows of a day file into `rows` one by one; `whole` learns
// which rows came whole. A row that did not tells the host why, if the
// thread's last error names one of the two causes it knows.
void ReadRows(platform::File& file, _tagSTIROW* rows, bool whole[16], const char* eof,
              const char* pending) {
  for (DWORD r = 0; r < molra::kDayFileRows; ++r) {
    DWORD done = 0;
    whole[r] = file.Read(&rows[r], sizeof rows[r], &done) && done == sizeof rows[r];
    if (whole[r]) continue;
    const DWORD error = platform::GetLastError();
    if (error == platform::kErrorHandleEof) platform::ShowMessageBox(eof);
    if (error == platform::kErrorIoPending) platform::ShowMessageBox(pending);
  }
}

}  // namespace

int CMOLRA::SaveTimeReadEx(char* /*unused*/, SYSTEMTIME st, char* pRows) {
  if (pRows == nullptr) return 0;
  std::memset(pRows, 0, molra::kDayFileSize);
  std::unique_ptr<platform::File> file = OpenForReading(molra::DayFilePath(st));
  if (!file) return 0;
  bool whole[16];
  ReadRows(*file, m_SaveTime, whole, "ERROR_HANDLE_EOF-Read", "ERROR_IO_PENDING-Read");
  for (DWORD r = 0; r < molra::kDayFileRows; ++r) {
    if (whole[r]) std::memcpy(pRows + r * sizeof(_tagSTIROW), &m_SaveTime[r], sizeof(_tagSTIROW));
  }
  file->Close();
  return 1;
}

int CMOLRA::SaveTimeLoad(SYSTEMTIME st) {
  std::unique_ptr<platform::File> file = OpenForReading(molra::DayFilePath(st));
  if (!file) return 0;
  bool whole[16];
  ReadRows(*file, m_SaveTime, whole, "ERROR_HANDLE_EOF-Load", "ERROR_IO_PENDING-Load");
  file->Close();
  return 1;
}

int CMOLRA::SaveTimeRead(char* unused, SYSTEMTIME stDay, char* pRows) {
  if (pRows == nullptr) return 1;
  std::memset(pRows, 0, molra::kDayFileSize);
  if (m_Tzi.Bias == 0 || m_bOddBias != 0) {
    // No whole-hour shift to make: the file of the date as it stands.
    SaveTimeReadEx(unused, stDay, pRows);
    return 1;
  }
  // The local day begins in the UTC day before (a zone ahead of UTC) or
  // ends in the UTC day after (a zone behind it).
  SYSTEMTIME other = stDay;
  CZoneClock::AddMinutes(&other, m_Tzi.Bias < 0 ? -1440 : 1440);
  char otherRows[molra::kDayFileSize];
  char dayRows[molra::kDayFileSize];
  SaveTimeReadEx(unused, other, otherRows);
  SaveTimeReadEx(unused, stDay, dayRows);
  if (!m_pClock) return 1;
  const struct {
    const char* rows;
    SYSTEMTIME day;
  } files[2] = {{otherRows, other}, {dayRows, stDay}};
  for (DWORD r = 0; r < molra::kDayFileRows; ++r) {
    for (int h = 0; h < static_cast<int>(molra::kHours); ++h) {
      for (const auto& file : files) {
        if (file.rows[r * sizeof(_tagSTIROW) + 1 + h] == 0) continue;
        // Each marked UTC hour lands where the clock of its date shows it.
        SYSTEMTIME local = file.day;
        CZoneClock::AddMinutes(&local, h * 60);
        m_pClock->SystemToLocal(&local, 1);
        if (local.wDay == stDay.wDay && local.wHour < molra::kHours) {
          pRows[r * sizeof(_tagSTIROW) + 1 + local.wHour] = 1;
        }
      }
    }
  }
  return 1;
}

int CMOLRA::SaveTimeDelete(SYSTEMTIME st) {
  platform::CurrentEnv()->RemoveFile(molra::DayFilePath(st));
  return 1;
}
