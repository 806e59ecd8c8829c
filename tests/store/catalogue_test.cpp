#include "support/temp_drives.h"

namespace {

using CatalogueTest = molra_test::TempDrives;

TEST_F(CatalogueTest, FreshObjectShowsDefaultHeadWithoutTouchingFiles) {
  CMOLRA store;
  const _tagFSHDR* head = store.GetFSInfo();
  EXPECT_EQ(std::string(head->szMagic, 6), "MOLRA3");
  EXPECT_EQ(head->wVersion, 0x0100);
  EXPECT_EQ(head->dwBaskets, 0u);
  EXPECT_FALSE(FileExists(Root('c') + "/FSDIR"));
}

}  // namespace
