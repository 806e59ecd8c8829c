// Making baskets: where they go and what they are numbered, and room on the
// drives. A basket holds all its blocks once it is made; a refusal, a drive
// that runs out of room or a write that fails undoes the new data files and
// leaves the catalogue as it was.
#ifndef _WIN32
#include <sys/mount.h>
#endif

#include <filesystem>
#include <fstream>
#include <memory>

#include "molra/platform.h"
#include "platform/fault_injection.h"
#include "store/store_probe.h"

namespace molra_test {
namespace {

namespace fs = std::filesystem;

_tagBSKLOC oneOnD[] = {{3, 1}}, twoOnD[] = {{3, 2}}, twoOnDOneOnE[] = {{3, 2}, {4, 1}};

class CreateFsTest : public StoreTest {
 protected:
  size_t FilesOn(char drive, const char* ext = "") const {
    std::error_code ignored;
    size_t n = 0;
    for (fs::directory_iterator it(Real(drive, "MOLRA"), ignored), end; it != end; ++it)
      n += !*ext || it->path().extension() == ext;
    return n;
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
  ASSERT_EQ(store.CreateFS(oneOnD, 1), FS_OK);
  const Bytes catalogue = Catalogue();
  store.calls.clear();

  // Requests that make no basket. A good entry ahead of a bad one is not made either.
  EXPECT_EQ(store.CreateFS(nullptr, 1), FS_ERR_PARAM);
  const std::pair<std::vector<_tagBSKLOC>, LONG> requests[] = {
      {{{5, 0}}, FS_OK},          {{{3, -5}}, FS_ERR_PARAM},  {{{3, 1}, {4, -5}}, FS_ERR_PARAM},
      {{{26, 1}}, FS_ERR_CREATE}, {{{-1, 1}}, FS_ERR_CREATE}, {{{4, 1}, {30, 2}}, FS_ERR_CREATE}};
  for (auto [request, result] : requests)
    EXPECT_EQ(store.CreateFS(request.data(), static_cast<DWORD>(request.size())), result);
  EXPECT_TRUE(store.calls.empty());  // refused before the hook is asked
  EXPECT_EQ(FilesOn('d'), 3u);
  EXPECT_FALSE(FileExists(Real('e', "MOLRA")) || FileExists(Real('f', "MOLRA")));

  // A refusal of the third: the new data files go, index and table files
  // stay for a later attempt.
  store.refuseAt = 3;
  EXPECT_EQ(store.CreateFS(twoOnDOneOnE, 2), FS_ERR_CANCEL);
  EXPECT_EQ(FilesOn('d'), 3u + 2 * 2);

  // The table file of the second new basket cannot be made, after its data file was.
  fs::remove(Real('d', "MOLRA/FS000002.CTA"));
  ASSERT_TRUE(fs::create_directory(Real('d', "MOLRA/FS000002.CTA")));
  store.refuseAt = 0;
  EXPECT_EQ(store.CreateFS(twoOnDOneOnE, 2), FS_ERR_CREATE);
  EXPECT_EQ(FilesOn('d'), 7u);  // both new data files went again
  EXPECT_EQ(Catalogue(), catalogue);

  // Leftovers are reused, and cleared as if new.
  ASSERT_TRUE(fs::remove(Real('d', "MOLRA/FS000002.CTA")));
  std::ofstream(Real('d', "MOLRA/FS000001.CIN")) << std::string(200, '\xFF');
  std::ofstream(Real('d', "MOLRA/FS000001.CTA")) << std::string(374832, '\xFF');
  store.calls.clear();
  ASSERT_EQ(store.CreateFS(twoOnDOneOnE, 2), FS_OK);
  ExpectMade(store, {Record("D:\\MOLRA\\FS000000", 0, m_clock)},
             {"D:\\MOLRA\\FS000001", "D:\\MOLRA\\FS000002", "E:\\MOLRA\\FS000003"});
}

using SpaceTest = CreateFsTest;

TEST_F(SpaceTest, AFullDriveOrAFailedWriteFailsCreation) {
  // On a store of one basket, two more on D. Writes: 6 a basket (head,
  // index, four table days), then the catalogue's.
  const DWORD basket = 67108864 + 3145728 + 374832;
  const struct { const char* name; char fullDrive; DWORD room, failWrite; LONG result; } cases[] = {
      {"no room on D", 'D', 0, 0, FS_ERR_CREATE},
      {"room for one basket", 'D', basket + 4096, 0, FS_ERR_CREATE},
      {"room for a data and an index file", 'D', 67108864 + 3145728 + 4096, 0, FS_ERR_CREATE},
      {"a data head not written", 0, 0, 1, FS_ERR_CREATE},
      {"an index head not written", 0, 0, 8, FS_ERR_CREATE},
      {"a table day not written", 0, 0, 12, FS_ERR_CREATE},
      {"no room for the catalogue", 'C', 0, 0, FS_ERR_CATALOG},
      {"the catalogue not written", 0, 0, 13, FS_ERR_CATALOG},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (const char drive : {'c', 'd'}) fs::remove_all(Root(drive));
    StoreProbe store;
    ASSERT_EQ(store.CreateFS(oneOnD, 1), FS_OK);
    const Bytes catalogue = Catalogue();
    LONG result = FS_OK;
    {
      molra::platform::ScopedFaultInjection faults;
      if (c.fullDrive) faults->FillDiskAfter(c.fullDrive, c.room);
      if (c.failWrite) faults->FailWriteAt(c.failWrite);
      result = store.CreateFS(twoOnD, 1);
    }
    EXPECT_EQ(result, c.result);
    // Undone, in memory too; or the baskets stand and memory holds them.
    const size_t baskets = c.result == FS_ERR_CREATE ? 1 : 3;
    EXPECT_EQ(FilesOn('d', ".CDT"), baskets);
    EXPECT_EQ(store.GetFSInfo()->dwBaskets, baskets);
    // A catalogue whose blocks could not be taken is not touched at all.
    if (c.failWrite != 13) { EXPECT_EQ(Catalogue(), catalogue); }
  }
}

// A real drive that fills up: D: is a small memory file system of its own.
TEST_F(SpaceTest, ABasketMadeOnADriveThatThenFillsUpTakesItsChunks) {
#ifdef _WIN32
  GTEST_SKIP() << "no small file system can be mounted here (Windows)";
#else
  const std::string d = Root('d');
  fs::create_directories(d);
  if (::mount("tmpfs", d.c_str(), "tmpfs", 0, "size=80m") != 0)
    GTEST_SKIP() << "no small file system can be mounted here (needs root on Linux)";
  const std::unique_ptr<const char, int (*)(const char*)> unmount(d.c_str(), ::umount);
  EXPECT_EQ(StoreProbe().CreateFS(twoOnD, 1), FS_ERR_CREATE);  // 141 MB do not fit in 80
  EXPECT_EQ(FilesOn('d', ".CDT"), 0u);
  StoreProbe recorder;
  ASSERT_EQ(recorder.CreateFS(oneOnD, 1), FS_OK);
  // Something else takes the rest of the drive.
  std::ofstream(Real('d', "filler"), std::ios::binary) << std::string(16 << 20, 'x');
  ASSERT_EQ(recorder.OpenFS(0), FS_OK);
  std::vector<BYTE> frame(100000, 0x5A);
  for (WORD n = 0; n < 600; ++n) {
    _tagCHUNKHDR chunk{1, {2010, 11, 0, 18, 10, static_cast<WORD>(n / 60), static_cast<WORD>(n % 60), 0},
                       {}, 0, 0, static_cast<DWORD>(frame.size())};
    DWORD remaining = 0;
    ASSERT_EQ(recorder.SaveData(&chunk, frame.data(), &remaining, 0), FS_OK) << n;
  }
  recorder.CloseFS();
#endif
}

}  // namespace
}  // namespace molra_test
