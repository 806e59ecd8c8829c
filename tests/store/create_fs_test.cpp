#include <sys/stat.h>

#include <filesystem>

#include "molra/platform.h"
#include "store/store_probe.h"

namespace {

using molra_test::Bytes;
using molra_test::CatalogueBytes;
using molra_test::Record;
using molra_test::StoreProbe;
using molra_test::U32At;
using Calls = std::vector<std::pair<std::string, DWORD>>;

class CreateFsTest : public molra_test::StoreTest {
 protected:
  size_t FilesOn(char drive) const {
    std::error_code ignored;
    std::filesystem::directory_iterator dir(Real(drive, "MOLRA"), ignored);
    return static_cast<size_t>(std::distance(dir, {}));
  }

  // Basket n as CreateFS leaves it: its record and its three files.
  void ExpectBasket(const Bytes& catalogue, DWORD n, const std::string& path) {
    SCOPED_TRACE(path);
    _tagFSBSKINFO record = Record(path);
    record.stCreated = m_clock;
    ASSERT_GE(catalogue.size(), 32u + 128 * (n + 1));
    EXPECT_EQ(std::memcmp(catalogue.data() + 32 + 128 * n, &record, 128), 0);

    const std::string real = Real(path[0], "MOLRA/" + path.substr(9));
    const auto head = [](const std::string& file, size_t count) {
      Bytes bytes(count, 0xEE);
      std::ifstream(file, std::ios::binary).read(reinterpret_cast<char*>(bytes.data()), count);
      return bytes;
    };
    EXPECT_EQ(FileSize(real + ".CDT"), 67108864);
    EXPECT_EQ(head(real + ".CDT", 16),
              (Bytes{0, 1, 'M', 'O', 'L', 'R', 'A', 0, 16, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(FileSize(real + ".CIN"), 3145728);
    EXPECT_EQ(head(real + ".CIN", 100), Bytes(100, 0));
    EXPECT_EQ(ReadAll(real + ".CTA"), Bytes(374832, 0));
  }
};

TEST_F(CreateFsTest, LaysOutBasketsAcrossDrivesAndWritesTheCatalogue) {
  TIME_ZONE_INFORMATION tokyo{};  // the stamps stay UTC in any zone
  tokyo.Bias = -540;
  molra::platform::SetTimeZone(&tokyo);
  StoreProbe store;
  _tagBSKLOC where[] = {{3, 2}, {4, 1}};
  ASSERT_EQ(store.CreateFS(where, 2), FS_OK);

  const Calls expected = {
      {"D:\\MOLRA\\FS000000", 1}, {"D:\\MOLRA\\FS000001", 2}, {"E:\\MOLRA\\FS000002", 3}};
  EXPECT_EQ(store.calls, expected);
  const Bytes catalogue = Catalogue();
  ASSERT_EQ(catalogue.size(), 32u + 3 * 128);
  EXPECT_EQ(Bytes(catalogue.begin(), catalogue.begin() + 32), CatalogueBytes(3, 0, 0, {}));
  for (DWORD n = 0; n < 3; ++n) ExpectBasket(catalogue, n, expected[n].first);
}

TEST_F(CreateFsTest, NumbersOnFromTheHighestFileOfALoadedStore) {
  const std::pair<std::vector<_tagFSBSKINFO>, std::vector<std::string>> cases[] = {
      // Gaps below the highest number stay gaps.
      {{Record("D:\\MOLRA\\FS000002"), Record("E:\\MOLRA\\FS000009"),
        Record("D:\\MOLRA\\FS000005")},
       {"D:\\MOLRA\\FS000010", "D:\\MOLRA\\FS000011", "E:\\MOLRA\\FS000012"}},
      {{Record("D:\\MOLRA\\FS999999")},
       {"D:\\MOLRA\\FS1000000", "D:\\MOLRA\\FS1000001", "E:\\MOLRA\\FS1000002"}},
  };
  for (const auto& [old, made] : cases) {
    SCOPED_TRACE(made[0]);
    const DWORD count = static_cast<DWORD>(old.size());
    const Bytes before = CatalogueBytes(count, count - 1, 0, old);
    WriteCatalogue(before);
    StoreProbe store;
    store.CallLoadFSinfo();
    _tagBSKLOC where[] = {{3, 2}, {4, 1}};
    ASSERT_EQ(store.CreateFS(where, 2), FS_OK);

    EXPECT_EQ(store.calls, (Calls{{made[0], 1}, {made[1], 2}, {made[2], 3}}));
    const Bytes catalogue = Catalogue();
    EXPECT_EQ(U32At(catalogue, 8), count + 3);
    EXPECT_EQ(Bytes(catalogue.begin() + 12, catalogue.begin() + before.size()),
              Bytes(before.begin() + 12, before.end()));
    for (DWORD n = 0; n < 3; ++n) ExpectBasket(catalogue, count + n, made[n]);
  }
}

TEST_F(CreateFsTest, RequestsThatMakeNoBasket) {
  StoreProbe store;
  ASSERT_EQ(store.CreateFS(nullptr, 0), FS_OK);
  EXPECT_EQ(Catalogue(), CatalogueBytes(0, 0, 0, {}));
  _tagBSKLOC none[] = {{5, 0}};
  ASSERT_EQ(store.CreateFS(none, 1), FS_OK);
  EXPECT_EQ(Catalogue(), CatalogueBytes(0, 0, 0, {}));
  EXPECT_FALSE(FileExists(Real('f', "MOLRA")));
  _tagBSKLOC negative[] = {{3, -5}};
  EXPECT_EQ(store.CreateFS(negative, 1), FS_ERR_PARAM);

  _tagBSKLOC one[] = {{3, 1}};
  ASSERT_EQ(store.CreateFS(one, 1), FS_OK);
  store.calls.clear();
  const Bytes catalogue = Catalogue();
  EXPECT_EQ(store.CreateFS(nullptr, 1), FS_ERR_PARAM);
  // A good entry ahead of a bad one is not made either.
  const std::pair<std::vector<_tagBSKLOC>, LONG> requests[] = {
      {{{3, -1}}, FS_ERR_PARAM},  {{{3, 1}, {4, -1}}, FS_ERR_PARAM},
      {{{26, 1}}, FS_ERR_CREATE}, {{{-1, 1}}, FS_ERR_CREATE},
      {{{4, 1}, {30, 2}}, FS_ERR_CREATE}};
  for (auto [request, result] : requests) {
    EXPECT_EQ(store.CreateFS(request.data(), static_cast<DWORD>(request.size())), result);
  }
  EXPECT_TRUE(store.calls.empty());
  EXPECT_EQ(Catalogue(), catalogue);
  EXPECT_EQ(FilesOn('d'), 3u);
  EXPECT_FALSE(FileExists(Real('e', "MOLRA")));
  EXPECT_EQ(store.GetFSInfo()->dwBaskets, 1u);
}

TEST_F(CreateFsTest, RefusalOrFailureUndoesTheDataFilesAndKeepsTheCatalogue) {
  StoreProbe store;
  _tagBSKLOC one[] = {{3, 1}};
  ASSERT_EQ(store.CreateFS(one, 1), FS_OK);
  const Bytes catalogue = Catalogue();
  store.calls.clear();
  store.refuseAt = 3;
  _tagBSKLOC where[] = {{3, 2}, {4, 1}};
  EXPECT_EQ(store.CreateFS(where, 2), FS_ERR_CANCEL);
  EXPECT_EQ(store.calls.size(), 3u);
  // Index and table files stay for a later attempt.
  EXPECT_FALSE(FileExists(Real('d', "MOLRA/FS000001.CDT")));
  EXPECT_FALSE(FileExists(Real('d', "MOLRA/FS000002.CDT")));
  EXPECT_EQ(FilesOn('d'), 7u);
  EXPECT_EQ(Catalogue(), catalogue);

  // The table file of the second new basket cannot be made, after its data file was.
  std::filesystem::remove(Real('d', "MOLRA/FS000002.CTA"));
  ASSERT_EQ(::mkdir(Real('d', "MOLRA/FS000002.CTA").c_str(), 0777), 0);
  store.refuseAt = 0;
  EXPECT_EQ(store.CreateFS(where, 2), FS_ERR_CREATE);
  EXPECT_EQ(FilesOn('d'), 7u);  // both new data files went again
  EXPECT_EQ(Catalogue(), catalogue);

  // Leftovers are reused, and cleared as if new.
  ASSERT_EQ(::rmdir(Real('d', "MOLRA/FS000002.CTA").c_str()), 0);
  std::ofstream(Real('d', "MOLRA/FS000001.CIN")) << std::string(200, '\xFF');
  std::ofstream(Real('d', "MOLRA/FS000001.CTA")) << std::string(374832, '\xFF');
  store.calls.clear();
  ASSERT_EQ(store.CreateFS(where, 2), FS_OK);
  EXPECT_EQ(store.calls, (Calls{{"D:\\MOLRA\\FS000001", 1},
                                {"D:\\MOLRA\\FS000002", 2},
                                {"E:\\MOLRA\\FS000003", 3}}));
  for (DWORD n = 1; n < 4; ++n) ExpectBasket(Catalogue(), n, store.calls[n - 1].first);
}

TEST_F(CreateFsTest, CatalogueThatCannotBeWrittenKeepsTheBaskets) {
  std::filesystem::create_directories(CataloguePath());  // nothing can open it as a file
  StoreProbe store;
  _tagBSKLOC one[] = {{3, 1}};
  EXPECT_EQ(store.CreateFS(one, 1), FS_ERR_CATALOG);
  EXPECT_TRUE(FileExists(Real('d', "MOLRA/FS000000.CDT")));
  EXPECT_EQ(store.GetFSInfo()->dwBaskets, 1u);
}

}  // namespace
