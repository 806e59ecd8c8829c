// Room on the drives: a basket holds all its blocks once it is made, and a
// drive that runs out of room, or a write that fails, fails the creation
// and leaves the catalogue as it was.
#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mount.h>
#include <sys/stat.h>
#endif

#include <filesystem>
#include <fstream>

#include "platform/fault_injection.h"
#include "store/store_probe.h"

namespace molra_test {
namespace {

namespace platform = molra::platform;

constexpr DWORD kBasketBytes = 67108864 + 3145728 + 374832;

class SpaceTest : public StoreTest {
 protected:
  static long long Blocks(const std::string& path) {
#ifdef _WIN32
    const HANDLE file = ::CreateFileW(std::filesystem::u8path(path).c_str(), 0,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return -1;
    FILE_STANDARD_INFO info{};
    const bool got = ::GetFileInformationByHandleEx(file, FileStandardInfo, &info, sizeof info);
    return ::CloseHandle(file) && got ? info.AllocationSize.QuadPart : -1;
#else
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_blocks) * 512 : -1;
#endif
  }
  size_t DataFilesOnD() const {
    size_t n = 0;
    for (const auto& entry : std::filesystem::directory_iterator(Real('d', "MOLRA"))) {
      n += entry.path().extension() == ".CDT";
    }
    return n;
  }
};

TEST_F(SpaceTest, BasketFilesHoldTheirBlocks) {
  std::filesystem::create_directories(Root('d'));
  std::ofstream(Real('d', "probe")) << std::string(8192, 'x');
  if (Blocks(Real('d', "probe")) <= 0) GTEST_SKIP() << "this file system counts no blocks";
  _tagBSKLOC one[] = {{3, 1}};
  ASSERT_EQ(StoreProbe().CreateFS(one, 1), FS_OK);
  for (const char* ext : {".CDT", ".CIN", ".CTA"}) {
    const std::string file = Real('d', std::string("MOLRA/FS000000") + ext);
    EXPECT_GE(Blocks(file), FileSize(file)) << ext;
  }
}

TEST_F(SpaceTest, AFullDriveOrAFailedWriteFailsCreation) {
  // On a store of one basket, two more on D. Writes: 6 a basket (head,
  // index, four table days), then the catalogue's.
  struct Case {
    const char* name;
    char fullDrive;  // 0: none
    DWORD room;
    DWORD failWrite;  // 0: none
    LONG result;
  };
  const Case cases[] = {
      {"no room on D", 'D', 0, 0, FS_ERR_CREATE},
      {"room for one basket", 'D', kBasketBytes + 4096, 0, FS_ERR_CREATE},
      {"room for a data and an index file", 'D', 67108864 + 3145728 + 4096, 0, FS_ERR_CREATE},
      {"a data head not written", 0, 0, 1, FS_ERR_CREATE},
      {"an index head not written", 0, 0, 8, FS_ERR_CREATE},
      {"a table day not written", 0, 0, 12, FS_ERR_CREATE},
      {"no room for the catalogue", 'C', 0, 0, FS_ERR_CATALOG},
      {"the catalogue not written", 0, 0, 13, FS_ERR_CATALOG},
  };
  _tagBSKLOC one[] = {{3, 1}};
  _tagBSKLOC two[] = {{3, 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const char drive : {'c', 'd'}) std::filesystem::remove_all(Root(drive));
    StoreProbe store;
    ASSERT_EQ(store.CreateFS(one, 1), FS_OK);
    const Bytes catalogue = Catalogue();
    LONG result = FS_OK;
    {
      platform::ScopedFaultInjection faults;
      if (c.fullDrive) faults->FillDiskAfter(c.fullDrive, c.room);
      if (c.failWrite) faults->FailWriteAt(c.failWrite);
      result = store.CreateFS(two, 1);
    }
    EXPECT_EQ(result, c.result);
    if (c.result == FS_ERR_CREATE) {
      // Undone: no new data file, the catalogue as it was, in memory too.
      EXPECT_EQ(DataFilesOnD(), 1u);
      EXPECT_EQ(store.GetFSInfo()->dwBaskets, 1u);
    } else {
      EXPECT_EQ(DataFilesOnD(), 3u);  // the baskets stand; memory holds them
      EXPECT_EQ(store.GetFSInfo()->dwBaskets, 3u);
    }
    // A catalogue whose blocks could not be taken is not touched at all.
    if (c.failWrite != 13) {
      EXPECT_EQ(Catalogue(), catalogue);
    }
  }
}

// A real drive that fills up: D: is a small memory file system of its own.
TEST_F(SpaceTest, ABasketMadeOnADriveThatThenFillsUpTakesItsChunks) {
#ifdef _WIN32
  GTEST_SKIP() << "no small file system can be mounted here (Windows)";
#else
  const std::string d = Root('d');
  std::filesystem::create_directories(d);
  if (::mount("tmpfs", d.c_str(), "tmpfs", 0, "size=80m") != 0) {
    GTEST_SKIP() << "no small file system can be mounted here (needs root on Linux)";
  }
  struct Unmount {
    std::string path;
    ~Unmount() { ::umount(path.c_str()); }
  } unmount{d};
  _tagBSKLOC two[] = {{3, 2}};
  EXPECT_EQ(StoreProbe().CreateFS(two, 1), FS_ERR_CREATE);  // 141 MB do not fit in 80
  EXPECT_EQ(DataFilesOnD(), 0u);
  _tagBSKLOC one[] = {{3, 1}};
  StoreProbe recorder;
  ASSERT_EQ(recorder.CreateFS(one, 1), FS_OK);
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
