// The catalogue, opening the store, closing it and moving the open store
// between baskets.
#include <climits>
#include <memory>
#include <tuple>

#include "disk/fs_file.h"
#include "index/fs_index.h"
#include "platform/env.h"
#include "store/store_probe.h"

using molra::detail::CFsFile;

namespace molra_test {
namespace {

namespace fs = std::filesystem;
namespace platform = molra::platform;

using CatalogueTest = StoreTest;

const char kSecond[] = "D:\\MOLRA\\FS000001";
const Bytes kEmptyHead = CatalogueBytes(0, 0, 0, {});
const std::vector<_tagFSBSKINFO> kThree = {Record("D:\\MOLRA\\FS000000", 1), Record(kSecond, 2),
                                           Record("E:\\MOLRA\\FS000002", 3)};

bool CatalogueHidden() { return platform::CurrentEnv()->GetAttributes("C:\\FSDIR\\MOLRA.CFT") & 0x2; }

// The head in memory, byte for byte.
Bytes Head(StoreProbe& store) {
  return Bytes(reinterpret_cast<const char*>(store.GetFSInfo()), sizeof(_tagFSHDR));
}

TEST_F(CatalogueTest, FreshObjectAnswersFromMemoryAndTheFirstLoadMakesAnEmptyCatalogue) {
  StoreProbe store;
  EXPECT_EQ(Head(store), kEmptyHead);
  for (int channel = -1; channel <= 16; ++channel) EXPECT_EQ(store.GetIFrame(channel), 0);
  store.m_bIFrame[3] = store.m_bIFrame[4] = 7;
  for (const int channel : {-1, 3, 16}) store.SetIFrame(channel);
  EXPECT_EQ(std::make_pair(store.GetIFrame(3), store.GetIFrame(4)), std::make_pair(0, 1));
  EXPECT_FALSE(FileExists(Root('c') + "/FSDIR"));

  // The next load hides the catalogue the first one made.
  store.CallLoadFSinfo();
  EXPECT_EQ(FileSize(CataloguePath()), 0);
  EXPECT_FALSE(CatalogueHidden());
  store.CallLoadFSinfo();
  EXPECT_TRUE(CatalogueHidden());
}

TEST_F(CatalogueTest, SavingOneRecordLeavesTheOthersAndLoadKeepsToTheCountedWholeRecords) {
  WriteCatalogue(CatalogueBytes(3, 0, 0, kThree));
  StoreProbe store;
  store.CallLoadFSinfo();
  ASSERT_NE(store.Basket(2), nullptr);
  for (DWORD n = 0; n < 3; ++n) store.Basket(n)->dwDays *= 10;
  store.GetFSInfo()->dwCurrent = 2;
  EXPECT_EQ(store.SaveFSInfo(1), FS_OK);  // the others as the disk has them
  std::vector<_tagFSBSKINFO> records = kThree;
  records[1].dwDays = 20;
  EXPECT_EQ(Catalogue(), CatalogueBytes(3, 2, 0, records));
  EXPECT_EQ(store.SaveFSInfo(-1), FS_OK);
  records[0].dwDays = 10;
  records[2].dwDays = 30;
  EXPECT_EQ(Catalogue(), CatalogueBytes(3, 2, 0, records));

  // The catalogue has shrunk, whatever its magic: its third record is
  // stale, and so is the ring, which pointed at it.
  records[1].stLast = SYSTEMTIME{2010, 11, 4, 18, 9, 0, 5, 0};
  Bytes bytes = CatalogueBytes(2, 2, 2, records);
  std::memcpy(bytes.data(), "XYZZY9", 6);
  WriteCatalogue(bytes);
  store.CallLoadFSinfo();
  bytes[12] = 1;  // the head goes to the newest recording,
  bytes[16] = 0;  // the tail to the basket behind it
  EXPECT_EQ(Head(store), bytes.substr(0, 32));
  ASSERT_EQ(store.m_ppBasket ? store.m_ppBasket->size() : 0, 2u);
  EXPECT_EQ(std::memcmp(store.m_ppBasket->data(), records.data(), 2 * sizeof records[0]), 0);

  // A count past the end of the file, and a path without its terminator.
  const std::string longPath(64, 'A');
  bytes = CatalogueBytes(0xFFFFFFFF, 0, 0, {Record(longPath), Record(kSecond), Record(kSecond)});
  bytes.resize(32 + 128 * 2 + 64);
  WriteCatalogue(bytes);
  store.CallLoadFSinfo();
  EXPECT_EQ(store.GetFSInfo()->dwBaskets, 2u);
  ASSERT_NE(store.Basket(1), nullptr);
  EXPECT_EQ(store.Basket(0)->szPath, longPath.substr(0, 63));

  // Shorter than a head: an empty store, whatever was loaded before.
  WriteCatalogue(Bytes(20, 0x55));
  store.CallLoadFSinfo();
  EXPECT_EQ(Head(store), kEmptyHead);
}

class Store : public StoreProbe {
 public:
  using CMOLRA::m_DataHdr, CMOLRA::m_LastSaved, CMOLRA::m_nMode, CMOLRA::m_nOpenBasket,
      CMOLRA::m_pData, CMOLRA::m_pIndex, CMOLRA::m_pTable, CMOLRA::OpenBsk;

  std::vector<const CFsFile*> Handles() const { return {m_pIndex.get(), m_pData.get(), m_pTable.get()}; }
  // Index, data, table: 1 open, 0 closed, - absent.
  std::string Files() const {
    std::string state;
    for (const CFsFile* file : Handles()) state += !file ? '-' : file->IsOpen() ? '1' : '0';
    return state;
  }
};

// A handle that shares nothing: refused while any other handle has the file.
std::unique_ptr<platform::File> Lock(int basket, const char* ext) {
  return platform::CurrentEnv()->OpenFile(
      ("D:\\MOLRA\\FS00000" + std::to_string(basket) + ext).c_str(), platform::Access::kReadWrite,
      platform::kShareNone, platform::Disposition::kOpenExisting);
}
bool Held(int basket) {
  return !Lock(basket, ".CIN") || !Lock(basket, ".CDT") || !Lock(basket, ".CTA");
}

class OpenCloseTest : public StoreTest {
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

TEST_F(OpenCloseTest, OpenFSOpensTheCurrentBasketInEitherModeAndCloseFSKeepsTheRingAndFlags) {
  const SYSTEMTIME last{2010, 11, 4, 18, 9, 0, 5, 0};
  store.Basket(1)->stLast = last;
  fs::resize_file(Path(1, ".CDT"), 1 << 20);  // tells the two data files apart
  const struct { LONG mode; DWORD current; } rows[] = {{0, 0}, {1, 1}, {0, 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "mode " << row.mode << " basket " << row.current);
    store.GetFSInfo()->dwCurrent = row.current;
    ASSERT_EQ(store.SaveFSInfo(-1), FS_OK);
    ASSERT_EQ(store.OpenFS(row.mode), FS_OK);
    EXPECT_EQ(std::make_tuple(store.Files(), store.m_nMode, store.m_nOpenBasket,
                              store.m_DataHdr.dwWritePos),
              std::make_tuple("111", row.mode, static_cast<LONG>(row.current), 16u));
    EXPECT_EQ(store.m_pData->GetSize(), row.current ? 1u << 20 : molra::kDataFileSize);
    const SYSTEMTIME expected = row.current ? last : SYSTEMTIME{};
    for (const SYSTEMTIME& saved : store.m_LastSaved)
      EXPECT_EQ(std::memcmp(&saved, &expected, sizeof saved), 0);
    // A recorder's data file is back at its head; a reader's is behind it.
    _tagDATAHDR next{};
    ASSERT_TRUE(store.m_pData->Read(&next, sizeof next));
    EXPECT_EQ(std::memcmp(&next, &store.m_DataHdr, sizeof next) == 0, row.mode == 0);
    // A mode that does not exist is refused and the store stays as it is.
    for (const LONG mode : {-1L, 2L, 5L}) EXPECT_EQ(store.OpenFS(mode), FS_ERR_PARAM);
    EXPECT_EQ(std::make_tuple(store.Files(), store.m_nMode, store.m_nOpenBasket),
              std::make_tuple("111", row.mode, static_cast<LONG>(row.current)));
  }

  // The recorder on basket 1 closes: the files go, the ring, the key-frame
  // flags and a stop stay.
  ASSERT_TRUE(store.m_pIndex->Insert("20101118093015250000", _tagIDXREF{}));
  store.GetFSInfo()->dwOldest = 1;
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

TEST_F(OpenCloseTest, OpenBskMovesTheSameFilesAndALockedFileLeavesTheStoreUnusableUntilOpenFS) {
  ASSERT_EQ(store.OpenFS(0), FS_OK);
  for (LONG basket : {2, -1, INT_MAX, INT_MIN}) EXPECT_EQ(store.OpenBsk(basket), FS_ERR_INDEX);
  EXPECT_EQ(IndexOpen(0), 1u);  // a close and reopen would have cleared it
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

  // A locked file of the basket OpenFS opens, then of the one OpenBsk
  // moves to, leaves the store unusable until the next OpenFS. The index's
  // failure closes all three; the others' leave the files ahead of them open.
  const struct { const char* ext; LONG mode, code; const char* left; } rows[] = {
      {".CIN", 0, FS_ERR_INDEX, "000"}, {".CDT", 1, FS_ERR_FILE, "100"},
      {".CTA", 1, FS_ERR_FILE, "110"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.ext);
    store.CloseFS();  // a lock waits for the store's own handles
    {
      const auto lock = Lock(0, row.ext);
      EXPECT_EQ(store.OpenFS(row.mode), row.code);
      EXPECT_EQ(std::make_tuple(store.m_nMode, store.m_nOpenBasket), std::make_tuple(row.mode, -1));
      EXPECT_NE(store.OpenBsk(1), FS_OK);
    }
    ASSERT_EQ(store.OpenFS(0), FS_OK);
    const auto lock = Lock(1, row.ext);
    EXPECT_EQ(store.OpenBsk(1), row.code);
    EXPECT_EQ(store.Files(), row.left);
    // An index left open goes at the next move, which fails on the table.
    EXPECT_EQ(store.OpenBsk(0), row.left[0] == '1' ? FS_ERR_FILE : FS_ERR_INDEX);
    EXPECT_EQ(store.OpenBsk(1), FS_ERR_INDEX);
  }
  ASSERT_EQ(store.OpenFS(0), FS_OK);
  EXPECT_EQ(store.OpenBsk(1), FS_OK);
}

TEST_F(OpenCloseTest, OpenFSFailsOnADataFileCutShortOrWithoutACatalogue) {
  fs::resize_file(Path(0, ".CDT"), 5);
  EXPECT_EQ(store.OpenFS(0), FS_ERR_FILE);
  fs::resize_file(Path(0, ".CDT"), molra::kDataFileSize);  // its length back, not its head
  EXPECT_EQ(store.OpenFS(0), FS_OK);
  store.CloseFS();  // Windows deletes no file that is open
  fs::remove(CataloguePath());
  EXPECT_EQ(store.OpenFS(1), FS_ERR_CATALOG);
  EXPECT_EQ(FileSize(CataloguePath()), 0);  // left behind, empty
  EXPECT_EQ(Store().CreateFS(nullptr, 0), FS_OK);  // a head that counts no basket
  EXPECT_EQ(store.OpenFS(0), FS_ERR_CATALOG);
  EXPECT_EQ(std::make_tuple(store.m_nMode, store.Files()), std::make_tuple(0, "---"));
}

}  // namespace
}  // namespace molra_test
