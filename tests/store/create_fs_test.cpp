#include <filesystem>

#include "molra/platform.h"
#include "store/store_probe.h"

namespace molra_test {
namespace {

_tagBSKLOC twoOnDOneOnE[] = {{3, 2}, {4, 1}};

class CreateFsTest : public StoreTest {
 protected:
  size_t FilesOn(char drive) const {
    std::error_code ignored;
    std::filesystem::directory_iterator dir(Real(drive, "MOLRA"), ignored);
    return static_cast<size_t>(std::distance(dir, {}));
  }

  // CreateFS has asked the hook for the baskets `made`, in turn, made their
  // three files and entered them in the catalogue behind `records`.
  void ExpectMade(const StoreProbe& store, std::vector<_tagFSBSKINFO> records,
                  const std::vector<std::string>& made, DWORD current = 0) {
    Calls asked;
    for (const std::string& path : made) {
      SCOPED_TRACE(path);
      asked.emplace_back(path, asked.size() + 1);
      records.push_back(Record(path, 0, m_clock));
      const std::string real = Real(path[0], "MOLRA/" + path.substr(9));
      EXPECT_EQ(FileSize(real + ".CDT"), 67108864);
      EXPECT_EQ(ReadAll(real + ".CDT", 16),
                (Bytes{0, 1, 'M', 'O', 'L', 'R', 'A', 0, 16, 0, 0, 0, 0, 0, 0, 0}));
      EXPECT_EQ(FileSize(real + ".CIN"), 3145728);
      EXPECT_EQ(ReadAll(real + ".CIN", 100), Bytes(100, 0));
      EXPECT_EQ(ReadAll(real + ".CTA"), Bytes(374832, 0));
    }
    EXPECT_EQ(store.calls, asked);
    EXPECT_EQ(Catalogue(), CatalogueBytes(records.size(), current, 0, records));
  }
};

TEST_F(CreateFsTest, LaysOutBasketsAcrossDrivesNumberedOnFromTheHighestFile) {
  TIME_ZONE_INFORMATION tokyo{};  // the stamps stay UTC in any zone
  tokyo.Bias = -540;
  molra::platform::SetTimeZone(&tokyo);
  const std::pair<std::vector<_tagFSBSKINFO>, std::vector<std::string>> cases[] = {
      {{}, {"D:\\MOLRA\\FS000000", "D:\\MOLRA\\FS000001", "E:\\MOLRA\\FS000002"}},
      // Gaps below the highest number stay gaps.
      {{Record("D:\\MOLRA\\FS000002"), Record("E:\\MOLRA\\FS000009"),
        Record("D:\\MOLRA\\FS000005")},
       {"D:\\MOLRA\\FS000010", "D:\\MOLRA\\FS000011", "E:\\MOLRA\\FS000012"}},
      {{Record("D:\\MOLRA\\FS999999")},
       {"D:\\MOLRA\\FS1000000", "D:\\MOLRA\\FS1000001", "E:\\MOLRA\\FS1000002"}},
  };
  for (const auto& [old, made] : cases) {
    SCOPED_TRACE(made[0]);
    const DWORD current = static_cast<DWORD>(old.size()) / 2;
    WriteCatalogue(CatalogueBytes(static_cast<DWORD>(old.size()), current, 0, old));
    StoreProbe store;
    store.CallLoadFSinfo();
    ASSERT_EQ(store.CreateFS(twoOnDOneOnE, 2), FS_OK);
    ExpectMade(store, old, made, current);
  }
}

TEST_F(CreateFsTest, FailedRequestsKeepTheCatalogueAndUndoTheirDataFiles) {
  StoreProbe store;
  _tagBSKLOC one[] = {{3, 1}};
  ASSERT_EQ(store.CreateFS(one, 1), FS_OK);
  const Bytes catalogue = Catalogue();
  store.calls.clear();

  // Requests that make no basket. A good entry ahead of a bad one is not made either.
  EXPECT_EQ(store.CreateFS(nullptr, 1), FS_ERR_PARAM);
  const std::pair<std::vector<_tagBSKLOC>, LONG> requests[] = {
      {{{5, 0}}, FS_OK},          {{{3, -5}}, FS_ERR_PARAM},  {{{3, 1}, {4, -5}}, FS_ERR_PARAM},
      {{{26, 1}}, FS_ERR_CREATE}, {{{-1, 1}}, FS_ERR_CREATE}, {{{4, 1}, {30, 2}}, FS_ERR_CREATE}};
  for (auto [request, result] : requests) {
    EXPECT_EQ(store.CreateFS(request.data(), static_cast<DWORD>(request.size())), result);
  }
  EXPECT_TRUE(store.calls.empty());  // refused before the hook is asked
  EXPECT_EQ(FilesOn('d'), 3u);
  EXPECT_FALSE(FileExists(Real('e', "MOLRA")) || FileExists(Real('f', "MOLRA")));

  // A refusal of the third: the new data files go, index and table files
  // stay for a later attempt.
  store.refuseAt = 3;
  EXPECT_EQ(store.CreateFS(twoOnDOneOnE, 2), FS_ERR_CANCEL);
  EXPECT_EQ(FilesOn('d'), 3u + 2 * 2);

  // The table file of the second new basket cannot be made, after its data file was.
  std::filesystem::remove(Real('d', "MOLRA/FS000002.CTA"));
  ASSERT_TRUE(std::filesystem::create_directory(Real('d', "MOLRA/FS000002.CTA")));
  store.refuseAt = 0;
  EXPECT_EQ(store.CreateFS(twoOnDOneOnE, 2), FS_ERR_CREATE);
  EXPECT_EQ(FilesOn('d'), 7u);  // both new data files went again
  EXPECT_EQ(Catalogue(), catalogue);

  // Leftovers are reused, and cleared as if new.
  ASSERT_EQ(::rmdir(Real('d', "MOLRA/FS000002.CTA").c_str()), 0);
  std::ofstream(Real('d', "MOLRA/FS000001.CIN")) << std::string(200, '\xFF');
  std::ofstream(Real('d', "MOLRA/FS000001.CTA")) << std::string(374832, '\xFF');
  store.calls.clear();
  ASSERT_EQ(store.CreateFS(twoOnDOneOnE, 2), FS_OK);
  ExpectMade(store, {Record("D:\\MOLRA\\FS000000", 0, m_clock)},
             {"D:\\MOLRA\\FS000001", "D:\\MOLRA\\FS000002", "E:\\MOLRA\\FS000003"});
}

}  // namespace
}  // namespace molra_test
