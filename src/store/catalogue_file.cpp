// Reads and writes of the catalogue's head and records.
#include "store/catalogue_file.h"

#include "platform/env.h"
#include "store/store_files.h"

using molra::detail::CFsFile;

namespace molra {

namespace {

// A run of records that a 32-bit offset cannot reach is none the file holds.
bool Reachable(DWORD first, DWORD count) {
  const std::uint64_t end =
      CatalogueFile::kHeadSize + (std::uint64_t{first} + count) * CatalogueFile::kRecordSize;
  return end <= 0xFFFFFFFFu;
}

}  // namespace

bool CatalogueFile::Exists() { return platform::CurrentEnv()->Exists(kCatalogPath); }

int CatalogueFile::Open(CFsFile& file, int mode) { return file.Open(kCatalogPath, mode); }

DWORD CatalogueFile::RecordsHeld() {
  const DWORD size = m_file.GetSize();
  if (size == platform::kInvalidFileSize || size < kHeadSize) return 0;
  return (size - kHeadSize) / kRecordSize;
}

bool CatalogueFile::ReadRecords(DWORD first, DWORD count, _tagFSBSKINFO* records) {
  if (count == 0) return true;
  if (!Reachable(first, count)) return false;
  return m_file.ReadAt(RecordOffset(first), records, count * kRecordSize) != 0;
}

bool CatalogueFile::WriteRecords(DWORD first, DWORD count, const _tagFSBSKINFO* records) {
  if (count == 0) return true;
  if (!Reachable(first, count)) return false;
  return m_file.WriteAt(RecordOffset(first), records, count * kRecordSize) != 0;
}

}  // namespace molra
