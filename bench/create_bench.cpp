// Times laying out a store of 100 baskets, every file with all its blocks
// taken, against making the same files at their sizes as holes (what a
// store cost before it reserved its room), and shows what the drive holds.
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "cpu_time.h"
#include "molra/molra.h"
#include "platform/env.h"

namespace {

constexpr LONG kBaskets = 100;
constexpr DWORD kFileSizes[] = {67108864, 3145728, 374832};  // data, index, tables
constexpr double kBasketBytes = 67108864.0 + 3145728.0 + 374832.0;

struct Run {
  double wall = 0;
  double cpu = 0;
  double allocated = 0;  // bytes in blocks below drive D
};

double AllocatedBelow(const std::string& dir) {
  double bytes = 0;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir, ignored)) {
    struct stat st;
    if (::stat(entry.path().c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      bytes += static_cast<double>(st.st_blocks) * 512;
    }
  }
  return bytes;
}

template <typename Make>
Run Time(const std::string& dRoot, Make make) {
  Run run;
  const double cpu = CpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  make();
  run.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.cpu = CpuSeconds() - cpu;
  run.allocated = AllocatedBelow(dRoot);
  return run;
}

void MakeStore() {
  CMOLRA store;
  _tagBSKLOC drive{3, kBaskets};
  const LONG result = store.CreateFS(&drive, 1);
  if (result != FS_OK) {
    std::fprintf(stderr, "CreateFS answered %ld\n", static_cast<long>(result));
    std::exit(1);
  }
}

// The basket files at their sizes, with no blocks behind them.
void MakeHoles() {
  namespace platform = molra::platform;
  platform::Env* env = platform::CurrentEnv();
  env->MakeDirectory("D:\\MOLRA");
  for (LONG n = 0; n < kBaskets; ++n) {
    for (int f = 0; f < 3; ++f) {
      char path[64];
      std::snprintf(path, sizeof path, "D:\\MOLRA\\FS%06ld.%s", static_cast<long>(n),
                    f == 0 ? "CDT" : f == 1 ? "CIN" : "CTA");
      std::unique_ptr<platform::File> file = env->OpenFile(
          path, platform::Access::kReadWrite, platform::kShareReadWrite,
          platform::Disposition::kOpenAlways);
      if (!file || file->Seek(static_cast<LONG>(kFileSizes[f]), platform::kFileBegin) !=
                       kFileSizes[f] || !file->SetEnd() || !file->Close()) {
        std::fprintf(stderr, "cannot make %s\n", path);
        std::exit(1);
      }
    }
  }
}

void Print(const char* name, const Run& run) {
  std::printf("%-16s %9.3f %10.2f %10.0f %13.2f\n", name, run.wall, run.wall * 1000 / kBaskets,
              run.cpu * 1e6 / kBaskets, run.allocated / 1e9);
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 3;
  char pattern[] = "/tmp/molra-bench-create-XXXXXX";
  if (!mkdtemp(pattern)) return 1;
  const std::string base = pattern;
  struct statvfs fs;
  const double needed = kBasketBytes * kBaskets * 1.05;
  if (::statvfs(pattern, &fs) != 0 || static_cast<double>(fs.f_bavail) * fs.f_frsize < needed) {
    std::fprintf(stderr, "%s needs %.1f GB free\n", pattern, needed / 1e9);
    std::filesystem::remove(base);
    return 1;
  }
  TIME_ZONE_INFORMATION utc{};
  molra::platform::SetTimeZone(&utc);

  std::printf("a store of %ld baskets on one drive (%.1f GB of files)\n",
              static_cast<long>(kBaskets), kBasketBytes * kBaskets / 1e9);
  std::printf("%-16s %9s %10s %10s %13s\n", "", "seconds", "ms/basket", "cpu us/bsk",
              "GB in blocks");
  for (int round = 0; round < rounds; ++round) {
    for (const char* kind : {"holes", "store"}) {
      const std::string dir = base + "/" + kind + std::to_string(round);
      for (char letter = 'a'; letter <= 'z'; ++letter) {
        molra::platform::SetDriveRoot(letter, dir + "/" + letter);
      }
      const bool store = kind[0] == 's';
      const Run run = store ? Time(dir + "/d", MakeStore) : Time(dir + "/d", MakeHoles);
      Print(store ? "CreateFS" : "sized as holes", run);
      std::error_code ignored;
      std::filesystem::remove_all(dir, ignored);
    }
  }
  std::error_code ignored;
  std::filesystem::remove_all(base, ignored);
  return 0;
}
