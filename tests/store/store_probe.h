// Shared pieces of the store tests: a store that opens its protected parts
// and records its hook calls, and catalogues built byte for byte.
#pragma once

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_drives.h"

namespace molra_test {

using Calls = std::vector<std::pair<std::string, DWORD>>;

class StoreProbe : public CMOLRA {
 public:
  using CMOLRA::Basket, CMOLRA::m_bIFrame, CMOLRA::m_ppBasket, CMOLRA::SaveFSInfo;

  int OnCreatingFS(char* path, DWORD ordinal) override {
    calls.emplace_back(path, ordinal);
    return ordinal == refuseAt ? 0 : 1;
  }

  Calls calls;
  DWORD refuseAt = 0;  // 0: refuse none
};

inline _tagFSBSKINFO Record(const std::string& path, DWORD days = 0,
                            const SYSTEMTIME& created = {2009, 1, 4, 1, 2, 3, 4, 5}) {
  _tagFSBSKINFO record{};
  std::memcpy(record.szPath, path.data(), std::min(path.size(), sizeof record.szPath));
  record.stCreated = created;
  record.dwDays = days;
  return record;
}

inline Bytes CatalogueBytes(DWORD baskets, DWORD current, DWORD oldest,
                            const std::vector<_tagFSBSKINFO>& records) {
  const _tagFSHDR head{{'M', 'O', 'L', 'R', 'A', '3'}, 0x0100, baskets, current, oldest, {}};
  return Bytes(reinterpret_cast<const char*>(&head), sizeof head) +
         Bytes(reinterpret_cast<const char*>(records.data()),
               records.size() * sizeof(_tagFSBSKINFO));
}

class StoreTest : public TempDrives {
 protected:
  std::string CataloguePath() const { return Real('c', "FSDIR/MOLRA.CFT"); }
  Bytes Catalogue() const { return ReadAll(CataloguePath()); }
  std::string Log() const { return ReadAll(Real('c', "FSDIR/status.dat")); }
  void WriteCatalogue(const Bytes& bytes) const {
    std::filesystem::create_directories(Real('c', "FSDIR"));
    std::ofstream(CataloguePath(), std::ios::binary)
        .write(bytes.data(), static_cast<long>(bytes.size()));
  }
};

}  // namespace molra_test
