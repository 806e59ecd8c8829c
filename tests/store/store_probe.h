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

using Bytes = std::vector<unsigned char>;

class StoreProbe : public CMOLRA {
 public:
  using CMOLRA::Basket;
  using CMOLRA::m_bIFrame;
  using CMOLRA::m_ppBasket;
  using CMOLRA::SaveFSInfo;

  int OnCreatingFS(char* path, DWORD ordinal) override {
    calls.emplace_back(path, ordinal);
    return ordinal == refuseAt ? 0 : 1;
  }

  std::vector<std::pair<std::string, DWORD>> calls;
  DWORD refuseAt = 0;  // 0: refuse none
};

inline _tagFSBSKINFO Record(const std::string& path, DWORD days = 0) {
  _tagFSBSKINFO record{};
  std::memcpy(record.szPath, path.data(), std::min(path.size(), sizeof record.szPath));
  record.stCreated = SYSTEMTIME{2009, 1, 4, 1, 2, 3, 4, 5};
  record.dwDays = days;
  return record;
}

inline Bytes CatalogueBytes(DWORD baskets, DWORD current, DWORD oldest,
                            const std::vector<_tagFSBSKINFO>& records) {
  const _tagFSHDR head{{'M', 'O', 'L', 'R', 'A', '3'}, 0x0100, baskets, current, oldest, {}};
  const auto* raw = reinterpret_cast<const unsigned char*>(records.data());
  Bytes bytes(reinterpret_cast<const unsigned char*>(&head),
              reinterpret_cast<const unsigned char*>(&head + 1));
  bytes.insert(bytes.end(), raw, raw + records.size() * sizeof(_tagFSBSKINFO));
  return bytes;
}

inline DWORD U32At(const Bytes& bytes, size_t offset) {
  DWORD value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

class StoreTest : public TempDrives {
 protected:
  std::string CataloguePath() const { return Real('c', "FSDIR/MOLRA.CFT"); }
  Bytes Catalogue() const { return ReadAll(CataloguePath()); }
  void WriteCatalogue(const Bytes& bytes) const {
    std::filesystem::create_directories(Real('c', "FSDIR"));
    std::ofstream(CataloguePath(), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
  }
};

}  // namespace molra_test
