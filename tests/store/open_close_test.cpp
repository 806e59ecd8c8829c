// Opening the store, closing it and moving the open store between baskets.
#include <climits>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

#include "disk/fs_file.h"
#include "index/fs_index.h"
#include "platform/env.h"
#include "store/store_probe.h"

using molra::detail::CFsFile;

namespace {

namespace fs = std::filesystem;
namespace platform = molra::platform;

class Store : public molra_test::StoreProbe {
 public:
  using CMOLRA::m_DataHdr, CMOLRA::m_LastSaved, CMOLRA::m_nMode, CMOLRA::m_nOpenBasket,
      CMOLRA::m_pData, CMOLRA::m_pIndex, CMOLRA::m_pTable, CMOLRA::OpenBsk;

  std::vector<const CFsFile*> Handles() const {
    return {m_pIndex.get(), m_pData.get(), m_pTable.get()};
  }
  // Index, data, table: 1 open, 0 closed, - absent.
  std::string Files() const {
    std::string state;
    for (const CFsFile* file : Handles()) state += !file ? '-' : file->IsOpen() ? '1' : '0';
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

class OpenCloseTest : public molra_test::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    store.CallLoadFSinfo();
    _tagBSKLOC two[] = {{3, 2}};
    ASSERT_EQ(store.CreateFS(two, 1), FS_OK);
  }
  void TearDown() override {
    store.CloseFS();
    StoreTest::TearDown();
  }
  std::string Path(int basket, const char* ext) const {
    return Real('d', "MOLRA/FS00000" + std::to_string(basket) + ext);
  }
  // The open word of a basket's index head.
  DWORD IndexOpen(int basket) const {
    DWORD word = 0;
    std::memcpy(&word, ReadAll(Path(basket, ".CIN"), 8).data() + 4, sizeof word);
    return word;
  }

  Store store;
};

TEST_F(OpenCloseTest, OpenFSClosesAndOpensTheCurrentBasket) {
  const SYSTEMTIME last{2010, 11, 4, 18, 9, 0, 5, 0};
  store.Basket(1)->stLast = last;
  fs::resize_file(Path(1, ".CDT"), 1 << 20);  // tells the two data files apart
  const struct { LONG mode; DWORD current; } rows[] = {{0, 0}, {1, 1}, {0, 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "mode " << row.mode << " basket " << row.current);
    store.GetFSInfo()->dwCurrent = row.current;
    ASSERT_EQ(store.SaveFSInfo(-1), FS_OK);
    ASSERT_EQ(store.OpenFS(row.mode), FS_OK);
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
    // A mode that does not exist is refused and the store stays as it is.
    for (const LONG mode : {-1L, 2L, 5L}) EXPECT_EQ(store.OpenFS(mode), FS_ERR_PARAM);
    EXPECT_EQ(std::make_tuple(store.Files(), store.m_nMode, store.m_nOpenBasket),
              std::make_tuple("111", row.mode, static_cast<LONG>(row.current)));
  }
}

TEST_F(OpenCloseTest, OpenFSFailsOnEachBasketFileOrTheCatalogueAndOpensOnceTheyAreBack) {
  // A locked file, or (no extension) a data file cut short of its head.
  const struct { const char* ext; LONG mode; LONG code; } rows[] = {
      {".CIN", 0, FS_ERR_INDEX}, {".CDT", 1, FS_ERR_FILE}, {".CTA", 1, FS_ERR_FILE},
      {nullptr, 0, FS_ERR_FILE}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.ext ? row.ext : "short");
    ASSERT_EQ(store.OpenFS(1), FS_OK);
    if (row.ext) store.CloseFS();  // a lock waits for the store's own handles
    const auto lock = row.ext ? Lock(Dos(0, row.ext)) : nullptr;
    if (!row.ext) fs::resize_file(Path(0, ".CDT"), 5);
    EXPECT_EQ(store.OpenFS(row.mode), row.code);
    EXPECT_EQ(std::make_tuple(store.m_nMode, store.m_nOpenBasket), std::make_tuple(row.mode, -1));
    EXPECT_NE(store.OpenBsk(1), FS_OK);
  }
  fs::resize_file(Path(0, ".CDT"), molra::kDataFileSize);  // its length back, not its head
  EXPECT_EQ(store.OpenFS(0), FS_OK);

  // Without a catalogue, or with one that counts no basket.
  store.CloseFS();  // Windows deletes no file that is open
  fs::remove(CataloguePath());
  EXPECT_EQ(store.OpenFS(1), FS_ERR_CATALOG);
  EXPECT_EQ(FileSize(CataloguePath()), 0);  // left behind, empty
  EXPECT_EQ(Store().CreateFS(nullptr, 0), FS_OK);  // a head that counts no basket
  EXPECT_EQ(store.OpenFS(0), FS_ERR_CATALOG);
  EXPECT_EQ(std::make_tuple(store.m_nMode, store.Files()), std::make_tuple(0, "---"));
}

TEST_F(OpenCloseTest, CloseFSReleasesTheFilesAndKeepsTheRingAndTheFlags) {
  store.GetFSInfo()->dwCurrent = store.GetFSInfo()->dwOldest = 1;
  ASSERT_EQ(store.SaveFSInfo(-1), FS_OK);
  ASSERT_EQ(store.OpenFS(0), FS_OK);
  ASSERT_TRUE(store.m_pIndex->Insert("20101118093015250000", _tagIDXREF{}));
  store.m_bIFrame[2] = 1;
  store.SetExit(1);
  store.CloseFS();
  const _tagFSHDR& head = *store.GetFSInfo();
  EXPECT_EQ(std::make_tuple(store.Files(), store.m_nOpenBasket, store.m_nMode), std::make_tuple("---", -1, 0));
  EXPECT_EQ(std::make_tuple(head.dwBaskets, head.dwCurrent, head.dwOldest), std::make_tuple(0u, 1u, 1u));
  EXPECT_EQ(std::make_tuple(IndexOpen(1), Held(1)), std::make_tuple(0u, false));
  ASSERT_EQ(store.OpenFS(1), FS_OK);
  EXPECT_EQ(store.m_pIndex->Header().dwCount, 1u);  // the tree is kept, not reset
  EXPECT_EQ(store.GetIFrame(2), 1);
  EXPECT_EQ(store.OpenBsk(0), FS_ERR_INDEX);  // still told to stop
}

TEST_F(OpenCloseTest, OpenBskMovesTheSameFilesOrRefusesWithoutTouchingThem) {
  ASSERT_EQ(store.OpenFS(0), FS_OK);
  for (LONG basket : {2, -1, INT_MAX, INT_MIN}) EXPECT_EQ(store.OpenBsk(basket), FS_ERR_INDEX);
  EXPECT_EQ(IndexOpen(0), 1u);  // a close and reopen would have cleared it
  // A stop raised by another thread is seen by the next move.
  std::thread other([this] { store.SetExit(1); });
  LONG answer = FS_OK;
  for (int poll = 0; poll < 100000 && answer == FS_OK; ++poll) answer = store.OpenBsk(0);
  other.join();
  EXPECT_EQ(answer, FS_ERR_INDEX);
  EXPECT_EQ(store.SetExit(0), FS_OK);

  fs::resize_file(Path(1, ".CDT"), 1 << 20);
  fs::resize_file(Path(1, ".CTA"), 1000);
  store.m_DataHdr.dwWritePos = 777;
  const std::vector<const CFsFile*> handles = store.Handles();
  ASSERT_EQ(store.OpenBsk(1), FS_OK);
  EXPECT_EQ(store.Handles(), handles);
  EXPECT_EQ(std::make_tuple(store.m_pData->GetSize(), store.m_pTable->GetSize()),
            std::make_tuple(1u << 20, 1000u));
  EXPECT_EQ(std::make_tuple(IndexOpen(0), IndexOpen(1), Held(0)), std::make_tuple(0u, 1u, false));
  // The open basket and the data head are OpenFS's to set.
  EXPECT_EQ(std::make_tuple(store.m_nOpenBasket, store.m_DataHdr.dwWritePos),
            std::make_tuple(0, 777u));
}

TEST_F(OpenCloseTest, OpenBskThatFailsLeavesTheStoreUnusableUntilOpenFS) {
  const struct { const char* ext; LONG first; const char* left; } rows[] = {
      {".CIN", FS_ERR_INDEX, "000"}, {".CDT", FS_ERR_FILE, "100"}, {".CTA", FS_ERR_FILE, "110"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.ext);
    ASSERT_EQ(store.OpenFS(0), FS_OK);
    const auto lock = Lock(Dos(1, row.ext));
    EXPECT_EQ(store.OpenBsk(1), row.first);
    EXPECT_EQ(store.Files(), row.left);
    // An index left open goes at the next move, which fails on the table.
    EXPECT_EQ(store.OpenBsk(0), row.left[0] == '1' ? FS_ERR_FILE : FS_ERR_INDEX);
    EXPECT_EQ(store.OpenBsk(1), FS_ERR_INDEX);
  }
  ASSERT_EQ(store.OpenFS(0), FS_OK);
  EXPECT_EQ(store.OpenBsk(1), FS_OK);
}

}  // namespace
