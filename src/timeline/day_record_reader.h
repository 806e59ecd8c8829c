// Reads the parts of a basket's day records that the timeline needs.
//
// A day record is 93,708 bytes, yet a query looks at its date and either
// its hour cells or one hour's minute cells of one channel. Reading just
// those bytes gives the answers that whole-record reads give; a record
// that does not lie whole in the file counts as unreadable either way.
#pragma once

#include <cstddef>
#include <memory>

#include "disk/fs_file.h"
#include "molra/records.h"

namespace molra {

class DayRecordReader {
 public:
  // The date and the hour cells: the record's first 1,548 bytes.
  struct Head {
    DWORD dwYear;
    DWORD dwMonth;
    DWORD dwDay;
    DWORD dwHour[16][24];
  };
  static_assert(sizeof(Head) == offsetof(_tagFSBSKTBL, dwMinute), "a record's head");

  // Whole records read and then picked apart, for comparison in the
  // benchmark; the answers are the same. Process-wide, off by default.
  static void SetWholeRecords(bool whole);

  // Opens "<basket path>.CTA" as the queries do (read and write, shared).
  bool Open(const char* basketPath);
  DWORD Records() const { return m_whole; }

  // False for a record that cannot be read whole.
  bool ReadDate(DWORD k, DWORD date[3]);
  bool ReadHead(DWORD k, Head* head);
  bool ReadMinutes(DWORD k, int channel, int hour, DWORD minutes[60]);

 private:
  bool ReadWhole(DWORD k);

  detail::CFsFile m_file;
  std::unique_ptr<_tagFSBSKTBL> m_record;  // whole-record reads only
  DWORD m_recordAt = 0xFFFFFFFFu;          // which record it holds
  DWORD m_whole = 0;  // records that lie whole in the file
};

}  // namespace molra
