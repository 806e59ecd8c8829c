// The catalogue file "C:\FSDIR\MOLRA.CFT": a 32-byte head and the 128-byte
// basket records straight behind it. Every read and write of the
// catalogue goes through here, so its layout lives in one place.
#pragma once

#include "disk/fs_file.h"
#include "molra/records.h"

namespace molra {

// The catalogue's layout over a file object that the caller owns (the
// recorder keeps one open while it records).
class CatalogueFile {
 public:
  static constexpr DWORD kHeadSize = sizeof(_tagFSHDR);
  static constexpr DWORD kRecordSize = sizeof(_tagFSBSKINFO);
  static constexpr DWORD RecordOffset(DWORD n) { return kHeadSize + n * kRecordSize; }

  // Whether the file is there at all, without making it.
  static bool Exists();
  // Opens `file` on the catalogue with a mode of detail::CFsFile (made if absent).
  static int Open(detail::CFsFile& file, int mode);

  explicit CatalogueFile(detail::CFsFile& file) : m_file(file) {}

  bool ReadHead(_tagFSHDR* head) { return m_file.ReadAt(0, head, kHeadSize) != 0; }
  bool WriteHead(const _tagFSHDR& head) { return m_file.WriteAt(0, &head, kHeadSize) != 0; }
  // The whole records that the file holds behind its head.
  DWORD RecordsHeld();
  // `count` records from record `first` on, in one request each way.
  bool ReadRecords(DWORD first, DWORD count, _tagFSBSKINFO* records);
  bool WriteRecords(DWORD first, DWORD count, const _tagFSBSKINFO* records);

 private:
  detail::CFsFile& m_file;
};

}  // namespace molra
