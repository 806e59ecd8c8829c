#include "timeline/day_record_reader.h"

#include <atomic>
#include <cstring>
#include <new>

#include "store/store_files.h"

using molra::detail::CFsFile;

namespace molra {

namespace {
constexpr DWORD kRecordSize = sizeof(_tagFSBSKTBL);
std::atomic<bool> g_wholeRecords{false};
}  // namespace

void DayRecordReader::SetWholeRecords(bool whole) { g_wholeRecords = whole; }

bool DayRecordReader::ReadWhole(DWORD k) {
  if (!m_record) m_record.reset(new (std::nothrow) _tagFSBSKTBL);
  if (!m_record || k >= m_whole) return false;
  if (m_recordAt == k) return true;
  m_recordAt = 0xFFFFFFFFu;
  if (!m_file.ReadAt(k * kRecordSize, m_record.get(), kRecordSize)) return false;
  m_recordAt = k;
  return true;
}

bool DayRecordReader::Open(const char* basketPath) {
  m_whole = 0;
  m_recordAt = 0xFFFFFFFFu;
  if (!m_file.Open(BasketFile(basketPath, kTableExt), CFsFile::kModeReadWrite)) return false;
  m_whole = m_file.GetSize() / kRecordSize;
  return true;
}

bool DayRecordReader::ReadDate(DWORD k, DWORD date[3]) {
  if (g_wholeRecords) {
    if (!ReadWhole(k)) return false;
    std::memcpy(date, m_record.get(), 3 * sizeof(DWORD));
    return true;
  }
  return k < m_whole && m_file.ReadAt(k * kRecordSize, date, 3 * sizeof(DWORD));
}

bool DayRecordReader::ReadHead(DWORD k, Head* head) {
  if (g_wholeRecords) {
    if (!ReadWhole(k)) return false;
    std::memcpy(head, m_record.get(), sizeof *head);
    return true;
  }
  return k < m_whole && m_file.ReadAt(k * kRecordSize, head, sizeof *head);
}

bool DayRecordReader::ReadMinutes(DWORD k, int channel, int hour, DWORD minutes[60]) {
  if (k >= m_whole || channel < 0 || channel >= 16 || hour < 0 || hour >= 24) return false;
  const DWORD cell = static_cast<DWORD>(offsetof(_tagFSBSKTBL, dwMinute)) +
                     static_cast<DWORD>((channel * 24 + hour) * 60) * 4;
  if (g_wholeRecords) {
    if (!ReadWhole(k)) return false;
    std::memcpy(minutes, m_record->dwMinute[channel][hour], 60 * sizeof(DWORD));
    return true;
  }
  return m_file.ReadAt(k * kRecordSize + cell, minutes, 60 * sizeof(DWORD));
}

}  // namespace molra
