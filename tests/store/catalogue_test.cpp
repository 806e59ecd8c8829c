#include <memory>

#include "platform/env.h"
#include "store/store_probe.h"

namespace {

using molra_test::Bytes;
using molra_test::CatalogueBytes;
using molra_test::Record;
using molra_test::StoreProbe;
using molra_test::U32At;
using CatalogueTest = molra_test::StoreTest;

bool CatalogueHidden() {
  return molra::platform::CurrentEnv()->GetAttributes("C:\\FSDIR\\MOLRA.CFT") & 0x2;
}

void ExpectDefaultHead(const _tagFSHDR* head) {
  const Bytes expected = CatalogueBytes(0, 0, 0, {});
  EXPECT_EQ(std::memcmp(head, expected.data(), expected.size()), 0);
}

TEST_F(CatalogueTest, FreshObjectTouchesNoFilesAndAnswersFromMemory) {
  StoreProbe store;
  ExpectDefaultHead(store.GetFSInfo());
  for (int channel = -1; channel <= 16; ++channel) EXPECT_EQ(store.GetIFrame(channel), 0);
  store.m_bIFrame[3] = 1;
  store.m_bIFrame[4] = 7;
  store.SetIFrame(3);
  store.SetIFrame(-1);
  store.SetIFrame(16);
  EXPECT_EQ(store.GetIFrame(3), 0);
  EXPECT_EQ(store.GetIFrame(4), 1);
  EXPECT_EQ(store.IsFullBasket(), 1);
  EXPECT_EQ(store.GetBaksetFirst(0, nullptr, nullptr), 0);
  EXPECT_EQ(store.GetBaksetLast(0, nullptr, nullptr), 0);
  EXPECT_FALSE(FileExists(Root('c') + "/FSDIR"));
}

const char kSecond[] = "D:\\MOLRA\\FS000001";

// The records live on the heap: a double release, a leak or a read after
// release shows under the address sanitizer.
TEST_F(CatalogueTest, CopiesShareTheRecordsAndReleaseThemOnce) {
  WriteCatalogue(CatalogueBytes(2, 0, 0, {Record("D:\\MOLRA\\FS000000"), Record(kSecond)}));
  auto original = std::make_unique<StoreProbe>();
  original->CallLoadFSinfo();
  {
    const StoreProbe copy(*original);
    EXPECT_EQ(copy.m_ppBasket, original->m_ppBasket);
  }
  ASSERT_NE(original->Basket(1), nullptr);
  EXPECT_STREQ(original->Basket(1)->szPath, kSecond);

  StoreProbe other;
  other.CallLoadFSinfo();
  const std::weak_ptr<void> ownRecords = other.m_ppBasket;
  other = *original;
  EXPECT_TRUE(ownRecords.expired());
  StoreProbe& alias = other;
  other = alias;
  EXPECT_EQ(other.m_ppBasket, original->m_ppBasket);
  EXPECT_EQ(other.m_ppBasket.use_count(), 2);

  // The original reloads a changed catalogue, then goes first.
  WriteCatalogue(CatalogueBytes(1, 0, 0, {Record("E:\\MOLRA\\FS000007")}));
  original->CallLoadFSinfo();
  EXPECT_STREQ(original->Basket(0)->szPath, "E:\\MOLRA\\FS000007");
  EXPECT_EQ(original->Basket(1), nullptr);
  original.reset();
  EXPECT_EQ(other.m_ppBasket.use_count(), 1);
  ASSERT_NE(other.Basket(1), nullptr);
  EXPECT_STREQ(other.Basket(1)->szPath, kSecond);
}

TEST_F(CatalogueTest, CopyOfADerivedStoreHasTheDefaultHooks) {
  StoreProbe refusing;
  refusing.refuseAt = 1;
  _tagBSKLOC one[] = {{3, 1}};
  ASSERT_EQ(refusing.CreateFS(one, 1), FS_ERR_CANCEL);

  CMOLRA copy(refusing);
  EXPECT_EQ(copy.CreateFS(one, 1), FS_OK);
}

TEST_F(CatalogueTest, FirstLoadMakesAnEmptyCatalogueThatTheNextLoadHides) {
  StoreProbe store;
  store.CallLoadFSinfo();
  EXPECT_EQ(FileSize(CataloguePath()), 0);
  EXPECT_FALSE(CatalogueHidden());
  ExpectDefaultHead(store.GetFSInfo());
  EXPECT_EQ(store.Basket(0), nullptr);

  store.CallLoadFSinfo();
  EXPECT_TRUE(CatalogueHidden());
}

TEST_F(CatalogueTest, LoadReadsTheCountedRecordsWhateverTheMagic) {
  const std::vector<_tagFSBSKINFO> records = {Record("D:\\MOLRA\\FS000000", 1),
                                              Record("E:\\MOLRA\\FS000001", 2),
                                              Record("D:\\MOLRA\\FS000002", 3)};
  // The catalogue has shrunk: its third record is stale, and so is the
  // head of the ring, which pointed at it.
  Bytes bytes = CatalogueBytes(2, 2, 1, records);
  std::memcpy(bytes.data(), "XYZZY9", 6);
  WriteCatalogue(bytes);

  StoreProbe store;
  store.CallLoadFSinfo();
  EXPECT_EQ(std::memcmp(store.GetFSInfo(), bytes.data(), 12), 0);
  EXPECT_EQ(store.GetFSInfo()->dwCurrent, 0u);
  EXPECT_EQ(store.GetFSInfo()->dwOldest, 1u);
  ASSERT_NE(store.m_ppBasket, nullptr);
  ASSERT_EQ(store.m_ppBasket->size(), 2u);
  EXPECT_EQ(std::memcmp(store.m_ppBasket->data(), records.data(), 2 * sizeof records[0]), 0);
  EXPECT_EQ(store.Basket(2), nullptr);
}

TEST_F(CatalogueTest, DamagedCataloguesLoadWithoutReadingPastTheirEnd) {
  const std::string longPath(64, 'A');
  Bytes bytes = CatalogueBytes(0xFFFFFFFF, 0, 0,
                               {Record(longPath), Record(kSecond), Record(kSecond)});
  bytes.resize(32 + 128 * 2 + 64);
  WriteCatalogue(bytes);
  StoreProbe store;
  store.CallLoadFSinfo();
  EXPECT_EQ(store.GetFSInfo()->dwBaskets, 2u);
  ASSERT_NE(store.Basket(1), nullptr);
  EXPECT_EQ(store.Basket(0)->szPath, longPath.substr(0, 63));
  EXPECT_STREQ(store.Basket(1)->szPath, kSecond);
  EXPECT_EQ(store.Basket(2), nullptr);

  // Shorter than a head: an empty store, whatever was loaded before.
  WriteCatalogue(Bytes(20, 0x55));
  store.CallLoadFSinfo();
  ExpectDefaultHead(store.GetFSInfo());
  EXPECT_EQ(store.Basket(0), nullptr);
}

TEST_F(CatalogueTest, SavingOneRecordLeavesTheOthersAsTheDiskHasThem) {
  WriteCatalogue(CatalogueBytes(3, 0, 0, {Record("D:\\MOLRA\\FS000000", 1),
                                          Record("D:\\MOLRA\\FS000001", 2),
                                          Record("D:\\MOLRA\\FS000002", 3)}));
  StoreProbe store;
  store.CallLoadFSinfo();
  ASSERT_NE(store.Basket(2), nullptr);
  for (DWORD n = 0; n < 3; ++n) store.Basket(n)->dwDays = 10 * (n + 1);
  store.GetFSInfo()->dwCurrent = 2;
  // The head of the ring, then the day counts of the three records.
  const auto onDisk = [this] {
    const Bytes bytes = Catalogue();
    EXPECT_EQ(bytes.size(), 32u + 3 * 128);
    return std::vector<DWORD>{U32At(bytes, 12), U32At(bytes, 32 + 116),
                              U32At(bytes, 160 + 116), U32At(bytes, 288 + 116)};
  };

  EXPECT_EQ(store.SaveFSInfo(1), FS_OK);
  EXPECT_EQ(onDisk(), (std::vector<DWORD>{2, 1, 20, 3}));
  EXPECT_EQ(store.SaveFSInfo(-1), FS_OK);
  EXPECT_EQ(onDisk(), (std::vector<DWORD>{2, 10, 20, 30}));
}

}  // namespace
