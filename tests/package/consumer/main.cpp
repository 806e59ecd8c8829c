// Makes a one-basket store below the directory given and checks it.
#include <cstdio>
#include <string>

#include "molra/molra.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  molra::platform::SetDriveRoot('C', std::string(argv[1]) + "/c");
  molra::platform::SetDriveRoot('D', std::string(argv[1]) + "/d");
  CMOLRA store;
  store.CallLoadFSinfo();
  _tagBSKLOC drive = {3, 1};
  if (store.CreateFS(&drive, 1) != FS_OK || store.GetFSInfo()->dwBaskets != 1) {
    std::puts("consumer: CreateFS failed");
    return 1;
  }
  std::puts("consumer: ok");
  return 0;
}
