// create, info and retain: the catalogue and the ring as a whole.

#include <cstdio>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>

#include "console.h"
#include "commands.h"
#include "molra/molra.h"
#include "result_names.h"

namespace molra_tools {

namespace {

// Counts the baskets out on a terminal; a pipe or a file gets the summary
// alone.
class Creator : public CMOLRA {
 public:
  Creator(bool progress, long long total) : m_progress(progress), m_total(total) {}
  int OnCreatingFS(char* /*path*/, DWORD ordinal) override {
    if (m_progress) {
      std::fprintf(stderr, "\rbasket %u of %lld", static_cast<unsigned>(ordinal), m_total);
      std::fflush(stderr);
      m_shown = true;
    }
    return 1;
  }
  void EndProgress() {
    if (m_shown) std::fputc('\n', stderr);
  }

 private:
  bool m_progress;
  long long m_total;
  bool m_shown = false;
};

std::string Path(const _tagFSBSKINFO& record) {
  return Printable(record.szPath, sizeof record.szPath);
}

std::string Span(const _tagFSBSKINFO& record) {
  if (record.stFirst.wYear == 0 && record.stLast.wYear == 0) return "nothing";
  return Stamp(record.stFirst) + " to " + Stamp(record.stLast);
}

std::string NoStore() {
  return std::string("no store: the catalogue ") + kCataloguePath + " does not exist";
}

nlohmann::ordered_json JsonStamp(const SYSTEMTIME& stamp) {
  return stamp.wYear == 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(Stamp(stamp));
}

}  // namespace

int RunCreate(const std::vector<DriveCount>& drives, bool extend) {
  long long total = 0;
  for (const DriveCount& drive : drives) total += drive.count;
  Creator store(molra_tools::StderrIsTerminal(), total);
  store.CallLoadFSinfo();
  const DWORD before = store.GetFSInfo()->dwBaskets;
  if (before > 0 && !extend) return Refuse("a store exists; use --extend to add baskets");
  if (before + total > 0x7FFFFFFF) return Refuse("the store would hold too many baskets");
  std::vector<_tagBSKLOC> locations;
  for (const DriveCount& drive : drives) {
    locations.push_back(_tagBSKLOC{static_cast<signed char>(drive.letter - 'A'), drive.count});
  }
  const LONG result = store.CreateFS(locations.data(), static_cast<DWORD>(locations.size()));
  store.EndProgress();
  if (result != FS_OK) return Refuse("the baskets were not laid out: " + DescribeResult(result));
  DWORD n = before;
  for (const DriveCount& drive : drives) {
    _tagFSBSKINFO first{}, last{};
    store.GetBaksetInfo(static_cast<LONG>(n), &first);
    store.GetBaksetInfo(static_cast<LONG>(n + drive.count - 1), &last);
    if (drive.count == 1) {
      std::printf("drive %c: 1 basket, %s\n", drive.letter, Path(first).c_str());
    } else {
      std::printf("drive %c: %ld baskets, %s to %s\n", drive.letter, static_cast<long>(drive.count),
                  Path(first).c_str(), Path(last).c_str());
    }
    n += static_cast<DWORD>(drive.count);
  }
  std::printf("the store holds %u baskets\n", static_cast<unsigned>(store.GetFSInfo()->dwBaskets));
  return kExitOk;
}

int RunInfo(bool json) {
  if (!CatalogueExists()) return Refuse(NoStore());
  CMOLRA store;
  store.CallLoadFSinfo();
  const _tagFSHDR head = *store.GetFSInfo();
  std::vector<_tagFSBSKINFO> records;
  for (DWORD n = 0; n < head.dwBaskets; ++n) {
    _tagFSBSKINFO record{};
    if (store.GetBaksetInfo(static_cast<LONG>(n), &record) != FS_OK) break;
    records.push_back(record);
  }
  const std::string magic = Printable(head.szMagic, sizeof head.szMagic);

  if (json) {
    nlohmann::ordered_json out;
    out["catalogue"] = kCataloguePath;
    out["zone"] = "UTC";
    out["head"] = {{"magic", magic},
                   {"version", head.wVersion},
                   {"baskets", head.dwBaskets},
                   {"current", head.dwCurrent},
                   {"oldest", head.dwOldest}};
    out["baskets"] = nlohmann::ordered_json::array();
    for (DWORD n = 0; n < records.size(); ++n) {
      const _tagFSBSKINFO& r = records[n];
      out["baskets"].push_back({{"number", n},
                                {"path", Path(r)},
                                {"first", JsonStamp(r.stFirst)},
                                {"last", JsonStamp(r.stLast)},
                                {"days", r.dwDays},
                                {"chunks", r.dwChunks},
                                {"flags", r.dwFlags},
                                {"current", n == head.dwCurrent},
                                {"oldest", n == head.dwOldest}});
    }
    std::printf("%s\n", out.dump(2).c_str());
    return kExitOk;
  }

  std::printf("catalogue %s: magic %s, version 0x%04X, %u baskets, current %u, oldest %u\n",
              kCataloguePath, magic.c_str(), head.wVersion, static_cast<unsigned>(head.dwBaskets),
              static_cast<unsigned>(head.dwCurrent), static_cast<unsigned>(head.dwOldest));
  std::printf("%6s  %-24s %-19s  %-19s  %5s %7s %5s\n", "basket", "path", "first (UTC)",
              "last (UTC)", "days", "chunks", "flags");
  for (DWORD n = 0; n < records.size(); ++n) {
    const _tagFSBSKINFO& r = records[n];
    const std::string first = r.stFirst.wYear ? Stamp(r.stFirst) : "-";
    const std::string last = r.stLast.wYear ? Stamp(r.stLast) : "-";
    std::printf("%6u  %-24s %-19s  %-19s  %5u %7u %5u%s%s\n", static_cast<unsigned>(n),
                Path(r).c_str(), first.c_str(), last.c_str(), static_cast<unsigned>(r.dwDays),
                static_cast<unsigned>(r.dwChunks), static_cast<unsigned>(r.dwFlags),
                n == head.dwCurrent ? "  current" : "", n == head.dwOldest ? "  oldest" : "");
  }
  return kExitOk;
}

int RunRetain(unsigned days) {
  if (!CatalogueExists()) return Refuse(NoStore());
  CMOLRA store;
  store.CallLoadFSinfo();
  const DWORD baskets = store.GetFSInfo()->dwBaskets;

  // The library takes the cut-off from the same clock, in the zone set to UTC.
  const long long cutOff = static_cast<long long>(std::time(nullptr)) - 86400LL * days;
  const std::time_t when = static_cast<std::time_t>(cutOff);
  std::tm utc{};
  if (molra_tools::UtcFields(when, &utc) && utc.tm_year + 1900 >= 1) {
    std::printf("retention of %u day%s: recordings of %04d-%02d-%02d (UTC) and before go\n", days,
                days == 1 ? "" : "s", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday);
  } else {
    std::printf("retention of %u days reaches back before year 1: everything stays\n", days);
  }
  if (baskets == 0) {
    std::printf("the store has no baskets\n");
    return kExitOk;
  }

  // One basket a call. An erased basket passes the tail of the ring on;
  // once the tail comes round to a basket erased in this run, every
  // basket has been seen.
  std::vector<bool> erasedNow(baskets, false);
  int erased = 0, cut = 0;
  for (DWORD call = 0; call <= baskets; ++call) {
    const DWORD oldest = store.GetFSInfo()->dwOldest;
    if (oldest >= baskets || erasedNow[oldest]) break;
    _tagFSBSKINFO before{}, after{};
    store.GetBaksetInfo(static_cast<LONG>(oldest), &before);
    if (store.GetOldestBasketInfoAndBasketControl(days, &after) == 0) break;
    if (store.GetFSInfo()->dwOldest != oldest) {
      std::printf("erased basket %u %s: %s\n", static_cast<unsigned>(oldest), Path(before).c_str(),
                  before.stFirst.wYear == 0 ? "it held nothing" : Span(before).c_str());
      erasedNow[oldest] = true;
      ++erased;
      continue;
    }
    store.GetBaksetInfo(static_cast<LONG>(oldest), &after);
    if (std::memcmp(&before, &after, sizeof before) == 0) {
      return Refuse("basket " + std::to_string(oldest) + " " + Path(before) +
                    " was not aged: its files are open elsewhere or cannot be opened (see " +
                    kStatusLogPath + ")");
    }
    std::printf("cut basket %u %s: %s, now %s; days %u -> %u, chunks %u -> %u\n",
                static_cast<unsigned>(oldest), Path(before).c_str(), Span(before).c_str(),
                Span(after).c_str(), static_cast<unsigned>(before.dwDays),
                static_cast<unsigned>(after.dwDays), static_cast<unsigned>(before.dwChunks),
                static_cast<unsigned>(after.dwChunks));
    ++cut;
  }
  if (erased == 0 && cut == 0) {
    std::printf("nothing is older than the retention time\n");
  } else {
    std::printf("%d erased, %d cut\n", erased, cut);
  }
  return kExitOk;
}

}  // namespace molra_tools
