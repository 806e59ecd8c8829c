#include <memory>

#include "platform/env.h"
#include "store/store_probe.h"

namespace molra_test {
namespace {

using CatalogueTest = StoreTest;

const char kSecond[] = "D:\\MOLRA\\FS000001";
const Bytes kEmptyHead = CatalogueBytes(0, 0, 0, {});
const std::vector<_tagFSBSKINFO> kThree = {Record("D:\\MOLRA\\FS000000", 1), Record(kSecond, 2),
                                           Record("E:\\MOLRA\\FS000002", 3)};

bool CatalogueHidden() {
  return molra::platform::CurrentEnv()->GetAttributes("C:\\FSDIR\\MOLRA.CFT") & 0x2;
}

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

// The records live on the heap: a double release, a leak or a read after
// release shows under the address sanitizer.
TEST_F(CatalogueTest, CopiesShareTheRecordsAndReleaseThemOnce) {
  WriteCatalogue(CatalogueBytes(2, 0, 0, {Record("D:\\MOLRA\\FS000000"), Record(kSecond)}));
  auto original = std::make_unique<StoreProbe>();
  original->CallLoadFSinfo();
  EXPECT_EQ(StoreProbe(*original).m_ppBasket, original->m_ppBasket);

  StoreProbe other;
  other.CallLoadFSinfo();  // records of its own, to be released by the assignment
  other = *original;
  EXPECT_EQ(other.m_ppBasket.use_count(), 2);

  // The original reloads a changed catalogue, then goes first.
  WriteCatalogue(CatalogueBytes(1, 0, 0, {Record("E:\\MOLRA\\FS000007")}));
  original->CallLoadFSinfo();
  EXPECT_STREQ(original->Basket(0)->szPath, "E:\\MOLRA\\FS000007");
  original.reset();
  ASSERT_NE(other.Basket(1), nullptr);
  EXPECT_STREQ(other.Basket(1)->szPath, kSecond);
}

TEST_F(CatalogueTest, LoadKeepsToTheCountedWholeRecordsWhateverTheMagic) {
  // The catalogue has shrunk: its third record is stale, and so is the
  // ring, which pointed at it.
  std::vector<_tagFSBSKINFO> three = kThree;
  three[1].stLast = SYSTEMTIME{2010, 11, 4, 18, 9, 0, 5, 0};
  Bytes bytes = CatalogueBytes(2, 2, 2, three);
  std::memcpy(bytes.data(), "XYZZY9", 6);
  WriteCatalogue(bytes);
  StoreProbe store;
  store.CallLoadFSinfo();
  bytes[12] = 1;  // the head goes to the newest recording,
  bytes[16] = 0;  // the tail to the basket behind it
  EXPECT_EQ(Head(store), bytes.substr(0, 32));
  ASSERT_EQ(store.m_ppBasket ? store.m_ppBasket->size() : 0, 2u);
  EXPECT_EQ(std::memcmp(store.m_ppBasket->data(), three.data(), 2 * sizeof three[0]), 0);

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

TEST_F(CatalogueTest, SavingOneRecordLeavesTheOthersAsTheDiskHasThem) {
  WriteCatalogue(CatalogueBytes(3, 0, 0, kThree));
  StoreProbe store;
  store.CallLoadFSinfo();
  ASSERT_NE(store.Basket(2), nullptr);
  for (DWORD n = 0; n < 3; ++n) store.Basket(n)->dwDays *= 10;
  store.GetFSInfo()->dwCurrent = 2;

  EXPECT_EQ(store.SaveFSInfo(1), FS_OK);
  std::vector<_tagFSBSKINFO> records = kThree;
  records[1].dwDays = 20;
  EXPECT_EQ(Catalogue(), CatalogueBytes(3, 2, 0, records));
  EXPECT_EQ(store.SaveFSInfo(-1), FS_OK);
  records[0].dwDays = 10;
  records[2].dwDays = 30;
  EXPECT_EQ(Catalogue(), CatalogueBytes(3, 2, 0, records));
}

}  // namespace
}  // namespace molra_test
