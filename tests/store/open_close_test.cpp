// Opening the store, closing it and moving the open store between baskets.
#include <climits>
#include <cstring>
#include <memory>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

#include "disk/fs_file.h"
#include "index/fs_index.h"
#include "platform/env.h"
#include "support/temp_drives.h"

namespace {

namespace fs = std::filesystem;
namespace platform = molra::platform;

class Store : public CMOLRA {
 public:
  using CMOLRA::Basket;
  using CMOLRA::m_bIFrame;
  using CMOLRA::m_DataHdr;
  using CMOLRA::m_LastSaved;
  using CMOLRA::m_nMode;
  using CMOLRA::m_nOpenBasket;
  using CMOLRA::m_pData;
  using CMOLRA::m_pIndex;
  using CMOLRA::m_pTable;
  using CMOLRA::OpenBsk;
  using CMOLRA::SaveFSInfo;

  // Index, data, table: 1 open, 0 closed, - absent.
  std::string Files() const {
    std::string state;
    const CFsFile* files[] = {m_pIndex.get(), m_pData.get(), m_pTable.get()};
    for (const CFsFile* file : files) state += !file ? '-' : file->IsOpen() ? '1' : '0';
    return state;
  }
};

std::string Dos(int basket, const char* ext) {
  return "D:\\MOLRA\\FS00000" + std::to_string(basket) + ext;
}

// A handle that shares nothing: refused while any other handle has the file.
std::unique_ptr<platform::File> Lock(const std::string& dos) {
  return platform::CurrentEnv()->OpenFile(dos.c_str(), platform::Access::kReadWrite,
                                          platform::kShareNone,
                                          platform::Disposition::kOpenExisting);
}
bool Held(int basket) {
  return !Lock(Dos(basket, ".CIN")) || !Lock(Dos(basket, ".CDT")) || !Lock(Dos(basket, ".CTA"));
}

enum Kind { kLocked, kShort };

class OpenCloseTest : public molra_test::TempDrives {
 protected:
  void SetUp() override {
    TempDrives::SetUp();
    store.CallLoadFSinfo();
    _tagBSKLOC two[] = {{3, 2}};
    ASSERT_EQ(store.CreateFS(two, 1), FS_OK);
  }
  void TearDown() override {
    store.CloseFS();
    TempDrives::TearDown();
  }
  std::string Path(int basket, const char* ext) const {
    return Real('d', "MOLRA/FS00000" + std::to_string(basket) + ext);
  }
  // Keeps a basket file from opening, or cuts it short of a data head,
  // until the result goes; a cut file gets its length back, not its head.
  std::shared_ptr<void> Obstruct(int basket, const char* ext, Kind kind) const {
    if (kind == kLocked) return Lock(Dos(basket, ext));
    const std::string real = Path(basket, ext);
    const auto size = fs::file_size(real);
    fs::resize_file(real, 5);
    return std::shared_ptr<void>(nullptr, [real, size](void*) { fs::resize_file(real, size); });
  }
  // The open word of a basket's index head.
  DWORD IndexOpen(int basket) const {
    DWORD word = 0;
    std::ifstream(Path(basket, ".CIN"), std::ios::binary).seekg(4).read(
        reinterpret_cast<char*>(&word), sizeof word);
    return word;
  }

  Store store;
};

TEST_F(OpenCloseTest, OpenFSClosesAndOpensTheCurrentBasket) {
  const SYSTEMTIME last{2010, 11, 4, 18, 9, 0, 5, 0};
  store.Basket(1)->stLast = last;
  fs::resize_file(Path(1, ".CDT"), 1 << 20);  // tells the two data files apart
  const struct { LONG mode; DWORD current; } rows[] = {{0, 0}, {1, 1}, {5, 0}, {0, 1}};
  std::weak_ptr<CFsIndex> before;
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "mode " << row.mode << " basket " << row.current);
    store.GetFSInfo()->dwCurrent = row.current;
    ASSERT_EQ(store.SaveFSInfo(-1), FS_OK);
    ASSERT_EQ(store.OpenFS(row.mode), FS_OK);
    EXPECT_TRUE(before.expired());
    before = store.m_pIndex;
    EXPECT_EQ(std::make_tuple(store.Files(), store.m_nMode, store.m_nOpenBasket, store.m_DataHdr.dwWritePos),
              std::make_tuple("111", row.mode, static_cast<LONG>(row.current), 16u));
    EXPECT_EQ(store.m_pData->GetSize(), row.current ? 1u << 20 : molra::kDataFileSize);
    const SYSTEMTIME expected = row.current ? last : SYSTEMTIME{};
    for (const SYSTEMTIME& saved : store.m_LastSaved) {
      EXPECT_EQ(std::memcmp(&saved, &expected, sizeof saved), 0);
    }
    // A recorder's data file is back at its head; a reader's is behind it.
    _tagDATAHDR next{};
    ASSERT_TRUE(store.m_pData->Read(&next, sizeof next));
    EXPECT_EQ(std::memcmp(&next, &store.m_DataHdr, sizeof next) == 0, row.mode == 0);
  }
}

TEST_F(OpenCloseTest, OpenFSFailsOnEachBasketFileOrTheCatalogueAndOpensOnceTheyAreBack) {
  const struct { const char* ext; Kind kind; LONG mode; LONG code; } rows[] = {
      {".CIN", kLocked, 0, FS_ERR_INDEX}, {".CDT", kLocked, 1, FS_ERR_FILE},
      {".CDT", kShort, 0, FS_ERR_FILE},   {".CDT", kShort, 1, FS_ERR_FILE},
      {".CTA", kLocked, 0, FS_ERR_FILE},  {".CTA", kLocked, 1, FS_ERR_FILE},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.ext << " kind " << row.kind << " mode " << row.mode);
    ASSERT_EQ(store.OpenFS(1), FS_OK);
    if (row.kind == kLocked) store.CloseFS();  // a lock waits for the store's own handles
    const std::shared_ptr<void> obstacle = Obstruct(0, row.ext, row.kind);
    EXPECT_EQ(store.OpenFS(row.mode), row.code);
    EXPECT_EQ(std::make_tuple(store.m_nMode, store.m_nOpenBasket), std::make_tuple(row.mode, -1));
    EXPECT_NE(store.OpenBsk(1), FS_OK);
  }
  EXPECT_EQ(store.OpenFS(0), FS_OK);

  // Without a catalogue, or with one that counts no basket.
  const std::string catalogue = Real('c', "FSDIR/MOLRA.CFT");
  fs::remove(catalogue);
  EXPECT_EQ(store.OpenFS(4), FS_ERR_CATALOG);
  EXPECT_EQ(FileSize(catalogue), 0);  // left behind, empty
  EXPECT_EQ(Store().CreateFS(nullptr, 0), FS_OK);  // a head that counts no basket
  EXPECT_EQ(store.OpenFS(3), FS_ERR_CATALOG);
  EXPECT_EQ(std::make_tuple(store.m_nMode, store.Files()), std::make_tuple(3, "---"));
}

TEST_F(OpenCloseTest, CloseFSReleasesTheFilesAndKeepsTheRingAndTheFlags) {
  store.GetFSInfo()->dwCurrent = store.GetFSInfo()->dwOldest = 1;
  ASSERT_EQ(store.SaveFSInfo(-1), FS_OK);
  ASSERT_EQ(store.OpenFS(0), FS_OK);
  EXPECT_EQ(IndexOpen(1), 1u);
  ASSERT_TRUE(store.m_pIndex->Insert("20101118093015250000", _tagIDXREF{}));
  store.m_bIFrame[2] = 1;
  store.SetExit(1);
  store.CloseFS();
  const _tagFSHDR& head = *store.GetFSInfo();
  EXPECT_EQ(std::make_tuple(store.Files(), store.m_nOpenBasket, store.m_nMode), std::make_tuple("---", -1, 0));
  EXPECT_EQ(std::make_tuple(head.dwBaskets, head.dwCurrent, head.dwOldest), std::make_tuple(0u, 1u, 1u));
  EXPECT_EQ(IndexOpen(1), 0u);
  EXPECT_FALSE(Held(1));
  ASSERT_EQ(store.OpenFS(1), FS_OK);
  EXPECT_EQ(store.m_pIndex->Header().dwCount, 1u);  // the tree is kept, not reset
  EXPECT_EQ(store.GetIFrame(2), 1);
  EXPECT_EQ(store.OpenBsk(0), FS_ERR_INDEX);  // still told to stop
}

TEST_F(OpenCloseTest, OpenBskMovesTheSameFilesOrRefusesWithoutTouchingThem) {
  ASSERT_EQ(store.OpenFS(0), FS_OK);
  for (LONG basket : {2, -1, INT_MAX, INT_MIN}) EXPECT_EQ(store.OpenBsk(basket), FS_ERR_INDEX) << basket;
  EXPECT_EQ(IndexOpen(0), 1u);  // a close and reopen would have cleared it
  // A stop raised by another thread is seen by the next move.
  std::thread other([this] { store.SetExit(1); });
  LONG answer = FS_OK;
  for (int poll = 0; poll < 100000 && answer == FS_OK; ++poll) answer = store.OpenBsk(0);
  other.join();
  EXPECT_EQ(answer, FS_ERR_INDEX);
  EXPECT_EQ(store.OpenBsk(1), FS_ERR_INDEX);
  EXPECT_EQ(store.Files(), "111");
  EXPECT_EQ(IndexOpen(1), 0u);  // never opened
  EXPECT_EQ(store.SetExit(0), FS_OK);

  fs::resize_file(Path(1, ".CDT"), 1 << 20);
  fs::resize_file(Path(1, ".CTA"), 1000);
  store.m_DataHdr.dwWritePos = 777;
  const CFsFile* files[] = {store.m_pIndex.get(), store.m_pData.get(), store.m_pTable.get()};
  ASSERT_EQ(store.OpenBsk(1), FS_OK);
  const CFsFile* now[] = {store.m_pIndex.get(), store.m_pData.get(), store.m_pTable.get()};
  EXPECT_EQ(std::memcmp(files, now, sizeof files), 0);
  EXPECT_EQ(store.m_pData->GetSize(), 1u << 20);
  EXPECT_EQ(store.m_pTable->GetSize(), 1000u);
  EXPECT_EQ(IndexOpen(0), 0u);
  EXPECT_EQ(IndexOpen(1), 1u);
  EXPECT_FALSE(Held(0));
  EXPECT_EQ(store.m_nOpenBasket, 0);
  EXPECT_EQ(store.m_DataHdr.dwWritePos, 777u);
}

TEST_F(OpenCloseTest, OpenBskThatFailsLeavesTheStoreUnusableUntilOpenFS) {
  const struct { const char* ext; LONG first; const char* left; } rows[] = {
      {".CIN", FS_ERR_INDEX, "000"}, {".CDT", FS_ERR_FILE, "100"}, {".CTA", FS_ERR_FILE, "110"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.ext);
    ASSERT_EQ(store.OpenFS(0), FS_OK);
    {
      const std::shared_ptr<void> obstacle = Obstruct(1, row.ext, kLocked);
      EXPECT_EQ(store.OpenBsk(1), row.first);
    }
    EXPECT_EQ(store.Files(), row.left);
    // An index left open goes at the next move, which fails on the table.
    EXPECT_EQ(store.OpenBsk(0), row.left[0] == '1' ? FS_ERR_FILE : FS_ERR_INDEX);
    EXPECT_EQ(store.OpenBsk(1), FS_ERR_INDEX);
  }
  ASSERT_EQ(store.OpenFS(0), FS_OK);
  EXPECT_EQ(store.OpenBsk(1), FS_OK);
}

TEST_F(OpenCloseTest, CopiesKeepTheFilesOpenUntilTheLastGoes) {
  auto original = std::make_unique<Store>();
  ASSERT_EQ(original->OpenFS(0), FS_OK);
  auto copy = std::make_unique<Store>(*original);
  original.reset();
  EXPECT_EQ(copy->Files(), "111");
  ASSERT_EQ(copy->OpenBsk(1), FS_OK);
  EXPECT_TRUE(Held(1));
  copy.reset();
  EXPECT_EQ(IndexOpen(1), 0u);
  EXPECT_FALSE(Held(1));
}

}  // namespace
