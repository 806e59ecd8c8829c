// Verifying a store: the catalogue first, then each basket it lists, then
// the quick-search day files. Nothing is written, not even the status log.
#include "verify/store_verifier.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <map>
#include <string>

#include "dayfiles/day_file_paths.h"
#include "store/catalogue_file.h"
#include "store/store_files.h"
#include "verify/basket_verifier.h"
#include "verify/verify_support.h"

namespace molra {
namespace verify {
namespace {

// Earlier (-1), equal (0) or later (1), to the millisecond.
int Order(const SYSTEMTIME& a, const SYSTEMTIME& b) {
  const WORD x[] = {a.wYear, a.wMonth, a.wDay, a.wHour, a.wMinute, a.wSecond, a.wMilliseconds};
  const WORD y[] = {b.wYear, b.wMonth, b.wDay, b.wHour, b.wMinute, b.wSecond, b.wMilliseconds};
  for (size_t i = 0; i < 7; ++i) {
    if (x[i] != y[i]) return x[i] < y[i] ? -1 : 1;
  }
  return 0;
}

bool IsZero(const SYSTEMTIME& t) {
  static const SYSTEMTIME zero{};
  return std::memcmp(&t, &zero, sizeof t) == 0;
}

// The head and the records; the records that the head counts and the
// file holds whole are handed back for their baskets to be checked.
std::vector<_tagFSBSKINFO> CheckCatalogue(const std::vector<BYTE>& bytes, Report* report) {
  const std::string cft = kCatalogPath;
  const DWORD size = static_cast<DWORD>(bytes.size());
  if (size == 0) return {};  // made empty by a load: a store of no baskets
  if (size < CatalogueFile::kHeadSize) {
    report->Add(cft, 0, Say("%u bytes, shorter than the 32-byte head", size));
    return {};
  }
  _tagFSHDR head;
  std::memcpy(&head, bytes.data(), sizeof head);
  if (std::memcmp(head.szMagic, "MOLRA3", sizeof head.szMagic) != 0) {
    report->Add(cft, 0, Say("head magic \"%.6s\", not \"MOLRA3\"", head.szMagic));
  }
  const WORD version = head.wVersion;
  if (version != 0x0100) {
    report->Add(cft, offsetof(_tagFSHDR, wVersion),
                Say("head version 0x%04X, not 0x0100", version));
  }
  const DWORD held = (size - CatalogueFile::kHeadSize) / CatalogueFile::kRecordSize;
  const DWORD counted = head.dwBaskets;
  if (counted > held) {
    report->Add(
        cft, offsetof(_tagFSHDR, dwBaskets),
        Say("the head counts %u baskets, but the file holds %u whole records", counted, held));
  }
  const DWORD baskets = std::min(counted, held);
  const DWORD current = head.dwCurrent;
  const DWORD oldest = head.dwOldest;
  if (current >= std::max<DWORD>(baskets, 1)) {
    report->Add(cft, offsetof(_tagFSHDR, dwCurrent),
                Say("dwCurrent %u lies past the %u baskets", current, baskets));
  }
  // Deleting a basket leaves dwOldest where it stood, so it may lie past a
  // shorter list, but never past the records the file once held.
  if (oldest >= std::max<DWORD>(baskets, 1) && oldest >= held) {
    report->Add(cft, offsetof(_tagFSHDR, dwOldest),
                Say("dwOldest %u lies past the %u baskets", oldest, baskets));
  }

  std::vector<_tagFSBSKINFO> records(baskets);
  if (baskets != 0) {
    std::memcpy(records.data(), bytes.data() + CatalogueFile::kHeadSize,
                size_t{baskets} * CatalogueFile::kRecordSize);
  }
  std::map<std::string, DWORD> paths;
  for (DWORD n = 0; n < baskets; ++n) {
    _tagFSBSKINFO& rec = records[n];
    const DWORD at = CatalogueFile::RecordOffset(n);
    if (std::memchr(rec.szPath, '\0', sizeof rec.szPath) == nullptr) {
      report->Add(cft, at, Say("basket %u: its path is not terminated within 64 bytes", n));
      rec.szPath[sizeof rec.szPath - 1] = '\0';
    }
    if (rec.szPath[0] == '\0') {
      report->Add(cft, at, Say("basket %u: its path is empty", n));
    } else {
      std::string key = rec.szPath;
      for (char& c : key) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      const auto [place, fresh] = paths.emplace(key, n);
      if (!fresh) {
        report->Add(
            cft, at,
            Say("basket %u: names the same files as basket %u (%s)", n, place->second, rec.szPath));
      }
    }
    const SYSTEMTIME first = rec.stFirst;
    const SYSTEMTIME last = rec.stLast;
    if (IsZero(first) != IsZero(last) || Order(first, last) > 0) {
      report->Add(cft, at + static_cast<DWORD>(offsetof(_tagFSBSKINFO, stFirst)),
                  Say("basket %u: stFirst %s and stLast %s make no span", n,
                      StampText(first).c_str(), StampText(last).c_str()));
    }
    const DWORD flags = rec.dwFlags;
    if ((flags & ~1u) != 0) {
      report->Add(cft, at + static_cast<DWORD>(offsetof(_tagFSBSKINFO, dwFlags)),
                  Say("basket %u: dwFlags 0x%08X has bits other than bit 0", n, flags));
    }
  }
  return records;
}

bool DayFileName(const std::string& name) {
  if (name.size() != 12) return false;
  for (size_t i = 0; i < 8; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(name[i]))) return false;
  }
  std::string ext = name.substr(8);
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  // The eight characters are digits already.
  const int month = (name[4] - '0') * 10 + (name[5] - '0');
  const int day = (name[6] - '0') * 10 + (name[7] - '0');
  return ext == kDayFileExt && month >= 1 && month <= 12 && day >= 1 && day <= 31;
}

// A day file holds rows of a channel byte (its number, or 0 where a mark
// extended a short file) and 24 hour bytes, 0 or '1'.
void CheckDayFiles(Report* report) {
  std::vector<platform::FoundFile> found;
  const std::string pattern = std::string(kQuickSearchDir) + "\\*" + kDayFileExt;
  if (!platform::CurrentEnv()->FindFiles(pattern.c_str(), &found)) return;
  std::sort(
      found.begin(), found.end(),
      [](const platform::FoundFile& a, const platform::FoundFile& b) { return a.name < b.name; });
  for (const platform::FoundFile& entry : found) {
    if ((entry.attributes & platform::kFileAttributeDirectory) != 0) continue;
    const std::string path = std::string(kQuickSearchDir) + "\\" + entry.name;
    if (!DayFileName(entry.name)) {
      report->Add(path, 0, "not named after a day (yyyymmdd.sti)");
    }
    ReadOnlyFile file;
    if (!file.Open(path.c_str())) {
      report->Add(path, 0, Say("cannot be opened for reading (error %u)", file.Error()));
      continue;
    }
    const std::vector<BYTE> bytes = file.ReadBlock(0, kDayFileSize + 1);
    if (bytes.size() > kDayFileSize) {
      report->Add(path, kDayFileSize,
                  Say("%u bytes; a day file holds at most %u", file.Size(), kDayFileSize));
    }
    for (DWORD at = 0; at < std::min<size_t>(bytes.size(), kDayFileSize); ++at) {
      const DWORD row = at / sizeof(_tagSTIROW);
      const DWORD hour = at % sizeof(_tagSTIROW);
      const BYTE value = bytes[at];
      if (hour == 0) {
        if (value != row && value != 0) {
          report->Add(path, at, Say("row %u names channel %u", row, value), "bad rows");
        }
      } else if (value != 0 && value != static_cast<BYTE>(kMarked)) {
        report->Add(path, at,
                    Say("hour %u of channel %u holds 0x%02X%s; a day file holds 0 or '1'", hour - 1,
                        row, value, value == '0' ? " ('0', which only memory holds)" : ""),
                    "bad hour bytes");
      }
    }
  }
}

}  // namespace
}  // namespace verify

bool VerifyStore(std::vector<Finding>* findings, const VerifyProgress& progress) {
  std::vector<Finding> unused;
  std::vector<Finding>& out = findings ? *findings : unused;
  out.clear();
  if (!CatalogueFile::Exists()) return false;

  verify::Report report;
  std::vector<_tagFSBSKINFO> records;
  {
    verify::ReadOnlyFile catalogue;
    if (!catalogue.Open(kCatalogPath)) {
      report.Add(kCatalogPath, 0,
                 verify::Say("cannot be opened for reading (error %u)", catalogue.Error()));
    } else {
      const DWORD size = catalogue.Size();
      const std::vector<BYTE> bytes = catalogue.ReadBlock(0, size);
      if (bytes.size() != size) report.Add(kCatalogPath, 0, "cannot be read whole");
      records = verify::CheckCatalogue(bytes, &report);
    }
  }
  out = report.Take();

  const DWORD total = static_cast<DWORD>(records.size());
  for (DWORD n = 0; n < total; ++n) {
    if (records[n].szPath[0] != '\0') verify::VerifyBasket(n, records[n], &out);
    if (progress) progress(n + 1, total);
  }

  verify::CheckDayFiles(&report);
  for (Finding& f : report.Take()) out.push_back(std::move(f));
  return true;
}

}  // namespace molra
