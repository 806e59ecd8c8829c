// Marking hours in the quick-search day files, laying out a month of them,
// resetting the rows in memory, and letting old files go.
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "dayfiles/day_file_paths.h"
#include "disk/status_log.h"
#include "molra/molra.h"
#include "platform/clock.h"
#include "platform/env.h"

namespace platform = molra::platform;

namespace {

// Writers open day files for reading and writing and share both; a reader
// shares reading only, so the two keep out of each other's way.
std::unique_ptr<platform::File> OpenForMarks(const char* path, platform::Disposition disposition) {
  return platform::CurrentEnv()->OpenFile(path, platform::Access::kReadWrite,
                                          platform::kShareReadWrite, disposition);
}

}  // namespace

int CMOLRA::InitSaveTime() {
  platform::Env* env = platform::CurrentEnv();
  SYSTEMTIME today;
  platform::GetLocalTime(&today);
  char pattern[64];
  std::snprintf(pattern, sizeof pattern, "%s\\%04d%02d*%s", molra::kQuickSearchDir, today.wYear,
                today.wMonth, molra::kDayFileExt);
  std::vector<platform::FoundFile> found;
  if (env->FindFiles(pattern, &found)) {
    // The month is laid out: a day before the block gets an empty file.
    const molra::DayFilePath path(today);
    if (!env->Exists(path)) OpenForMarks(path, platform::Disposition::kOpenAlways);
    return 1;
  }

  // The first mark of a month lays out the rest of it, from today to the
  // 31st whatever the month's length.
  env->MakeDirectory(molra::kQuickSearchDir);
  DeleteOldQSFiles();
  for (int day = today.wDay; day <= 31; ++day) {
    const molra::DayFilePath path(today.wYear, today.wMonth, day);
    std::unique_ptr<platform::File> file = OpenForMarks(path, platform::Disposition::kOpenAlways);
    if (!file) continue;
    for (DWORD row = 0; row < molra::kDayFileRows; ++row) {
      _tagSTIROW& saved = m_SaveTime[row];
      saved.chChannel = static_cast<signed char>(row);
      std::memset(saved.chHour, 0, sizeof saved.chHour);
      DWORD done = 0;
      if (!file->Write(&saved, sizeof saved, &done) || done != sizeof saved) {
        molra::LogIoFailure("write", path, row * static_cast<DWORD>(sizeof saved),
                            platform::GetLastError());
        file->Close();
        return 0;  // the files made so far stay
      }
    }
    // One flush per file: the rows are on disk before the next file starts.
    if (!file->Flush()) molra::LogIoFailure("flush", path, 0, platform::GetLastError());
    if (!file->Close()) molra::LogIoFailure("close", path, 0, platform::GetLastError());
  }
  return 1;
}

int CMOLRA::SaveTimeWrite(SYSTEMTIME st, char chChannel) { return SaveTimeWriteEx(st, chChannel); }

int CMOLRA::SaveTimeWriteEx(SYSTEMTIME st, char chChannel) {
  // A channel or hour without a row or byte marks nothing.
  // Read as signed wherever char is unsigned, so that -1 stays -1.
  const int channel = static_cast<signed char>(chChannel);
  if (channel < 0 || channel >= static_cast<int>(molra::kChannels) || st.wHour >= molra::kHours) {
    return 0;
  }
  const molra::DayFilePath path(st);
  if (!platform::CurrentEnv()->Exists(path)) InitSaveTime();
  // The older open: it does not make a missing file.
  std::unique_ptr<platform::File> file = OpenForMarks(path, platform::Disposition::kOpenExisting);
  if (!file) return 0;
  _tagSTIROW& row = m_SaveTime[channel];
  row.chChannel = static_cast<signed char>(channel);
  row.chHour[st.wHour] = molra::kMarked;
  const char mark = molra::kMarked;
  DWORD done = 0;
  // The mark is 1 as the day file's open was; a lost byte is logged.
  const DWORD at = static_cast<DWORD>(channel) * sizeof(_tagSTIROW) + st.wHour + 1;
  if (!file->WriteAt(at, &mark, 1, &done) || done != 1) {
    molra::LogIoFailure("write", path, at, platform::GetLastError());
  }
  if (!file->Close()) molra::LogIoFailure("close", path, 0, platform::GetLastError());
  return 1;
}

int CMOLRA::SaveTimeSet(int bSet, int nChannel) {
  if (nChannel < -1 || nChannel >= static_cast<int>(molra::kChannels)) return 0;
  if (bSet == 0) return 1;
  for (int row = 0; row < static_cast<int>(molra::kChannels); ++row) {
    if (nChannel != -1 && row != nChannel) continue;
    m_SaveTime[row].chChannel = static_cast<signed char>(row);
    std::memset(m_SaveTime[row].chHour, '0', sizeof m_SaveTime[row].chHour);
  }
  return 1;
}

void CMOLRA::DeleteOldQSFiles() {
  const _tagFSBSKINFO* basket = Basket(0);
  if (basket == nullptr) return;  // a store not loaded keeps its day files
  const SYSTEMTIME first = basket->stFirst;
  if (first.wYear == 0 || first.wMonth == 0) return;
  // The stored UTC fields read as local time, as the cut-off always was.
  const CTime cutOff(first.wYear, first.wMonth, 1, 0, 0, 0, -1);
  char pattern[64];
  std::snprintf(pattern, sizeof pattern, "%s\\*%s", molra::kQuickSearchDir, molra::kDayFileExt);
  platform::Env* env = platform::CurrentEnv();
  std::vector<platform::FoundFile> found;
  if (!env->FindFiles(pattern, &found)) return;
  for (const platform::FoundFile& file : found) {
    if ((file.attributes & platform::kFileAttributeDirectory) != 0 || file.name == "." ||
        file.name == "..") {
      continue;
    }
    // By the last write, not by the date in the name; a file that cannot
    // go stays until the next month's first mark.
    const CTime written(platform::StampToUnixMillis(file.lastWrite) / 1000);
    if (written < cutOff) {
      const std::string path = std::string(molra::kQuickSearchDir) + "\\" + file.name;
      env->RemoveFile(path.c_str());
    }
  }
}
