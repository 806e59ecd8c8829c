// Times a minute search at the end of a full basket's index: node by node
// against reading nodes in blocks, side by side, on the same file.
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "index/fs_index.h"
#include "molra/platform.h"

using molra::detail::CFsIndex;

namespace {

constexpr DWORD kNodes = 70001;  // a full basket
constexpr int kRuns = 15;

// The key of the i-th chunk: one chunk every 40 ms from 09:00.
void KeyOf(DWORD i, char* key) {
  const DWORD ms = i * 40;
  char text[32];
  std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d%04d%02d", 2010, 11, 18,
                9 + static_cast<int>(ms / 3600000), static_cast<int>(ms / 60000 % 60),
                static_cast<int>(ms / 1000 % 60), static_cast<int>(ms % 1000), 0);
  std::memcpy(key, text, molra::kKeyLength);
}

// Writes a full index: the chain that in-order recording leaves.
bool WriteChain(const std::string& realPath) {
  std::vector<_tagIDXNODE> nodes(kNodes);
  for (DWORD i = 0; i < kNodes; ++i) {
    _tagIDXNODE& node = nodes[i];
    std::memset(&node, 0, sizeof node);
    const DWORD offset = molra::NodeAt(i);
    node.dwParent = i == 0 ? 0 : offset - molra::kNodeSize;
    node.dwRight = i + 1 == kNodes ? 0 : offset + molra::kNodeSize;
    node.Ref.cChannel = static_cast<signed char>(i % 16);
    node.Ref.dwOffset = 16 + i * 1000;
    KeyOf(i, node.cKey);
  }
  _tagIDXHDR head = molra::EmptyIndexHeader();
  head.dwRoot = head.dwFirst = molra::kRootOffset;
  head.dwEnd = head.dwLast = molra::NodeAt(kNodes - 1);
  head.dwCount = kNodes;
  std::ofstream out(realPath, std::ios::binary);
  out.write(reinterpret_cast<const char*>(&head), sizeof head);
  out.write(reinterpret_cast<const char*>(nodes.data()),
            static_cast<std::streamsize>(nodes.size() * sizeof(_tagIDXNODE)));
  out.close();
  return !out.fail();
}

struct Figures {
  double medianMs;
  double bestMs;
  DWORD cursor;
  long steps;
};

Figures TimeSearch(DWORD readAhead, const char* key) {
  long steps = 0;
  molra::platform::SetMessageHook([&steps] { ++steps; });
  std::vector<double> times;
  DWORD cursor = 0;
  for (int run = 0; run < kRuns; ++run) {
    CFsIndex index;
    index.SetReadAhead(readAhead);
    if (!index.Open("C:\\BENCH\\FS000000.CIN", 2, 0)) {
      std::fprintf(stderr, "cannot open the index\n");
      std::exit(1);
    }
    _tagIDXREF ref;
    const auto start = std::chrono::steady_clock::now();
    const int found = index.Find(key, &ref, static_cast<int>(molra::kMinuteKeyLength));
    const auto stop = std::chrono::steady_clock::now();
    if (!found) {
      std::fprintf(stderr, "the minute was not found\n");
      std::exit(1);
    }
    cursor = index.Cursor();
    times.push_back(std::chrono::duration<double, std::milli>(stop - start).count());
  }
  molra::platform::SetMessageHook(nullptr);
  std::sort(times.begin(), times.end());
  return {times[times.size() / 2], times.front(), cursor, steps / kRuns};
}

}  // namespace

int main() {
  char dir[] = "/tmp/molra-bench-XXXXXX";
  if (!::mkdtemp(dir)) return 1;
  molra::platform::SetDriveRoot('C', dir);
  std::filesystem::create_directories(std::string(dir) + "/BENCH");
  if (!WriteChain(std::string(dir) + "/BENCH/FS000000.CIN")) {
    std::fprintf(stderr, "cannot write the index under %s\n", dir);
    return 1;
  }

  char key[molra::kKeyLength];
  KeyOf(kNodes - 1, key);
  std::printf("minute search at the end of a full basket (%u nodes on the chain), %d runs each\n",
              static_cast<unsigned>(kNodes), kRuns);
  std::printf("%-22s %12s %12s %12s %14s\n", "read", "median ms", "best ms", "cursor",
              "message steps");
  const Figures single = TimeSearch(0, key);
  std::printf("%-22s %12.2f %12.2f %12u %14ld\n", "node by node", single.medianMs,
              single.bestMs, static_cast<unsigned>(single.cursor), single.steps);
  for (DWORD block : {16u * 1024, 64u * 1024, 256u * 1024}) {
    const Figures blocked = TimeSearch(block, key);
    char label[32];
    std::snprintf(label, sizeof label, "blocks of %u KiB", static_cast<unsigned>(block / 1024));
    std::printf("%-22s %12.2f %12.2f %12u %14ld\n", label, blocked.medianMs, blocked.bestMs,
                static_cast<unsigned>(blocked.cursor), blocked.steps);
  }
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return 0;
}
