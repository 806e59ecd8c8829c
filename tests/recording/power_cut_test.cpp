// A power cut at any write of a save: a fresh object opens the store,
// finds every chunk saved before the cut and records on from there.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "index/fs_index.h"
#include "platform/fault_injection.h"
#include "store/store_probe.h"

using molra::detail::CFsFile;
using molra::detail::CFsIndex;

namespace {

namespace platform = molra::platform;
using molra_test::Bytes;
using WriteLog = std::vector<std::pair<std::string, DWORD>>;  // file name, bytes

constexpr DWORD kChunkHead = sizeof(_tagCHUNKHDR);
constexpr DWORD kDataHead = sizeof(_tagDATAHDR);

// A file that logs each write's file name and size in its env's log.
class LoggedFile final : public platform::File {
 public:
  LoggedFile(std::unique_ptr<File> file, std::string name, WriteLog* log)
      : m_file(std::move(file)), m_name(std::move(name)), m_log(log) {}
  bool Read(void* data, DWORD n, DWORD* done) override { return m_file->Read(data, n, done); }
  bool ReadAt(DWORD at, void* data, DWORD n, DWORD* done) override {
    return m_file->ReadAt(at, data, n, done);
  }
  bool Write(const void* data, DWORD n, DWORD* done) override {
    m_log->emplace_back(m_name, n);
    return m_file->Write(data, n, done);
  }
  bool WriteAt(DWORD at, const void* data, DWORD n, DWORD* done) override {
    m_log->emplace_back(m_name, n);
    return m_file->WriteAt(at, data, n, done);
  }
  DWORD Seek(LONG distance, DWORD origin) override { return m_file->Seek(distance, origin); }
  bool SetEnd() override { return m_file->SetEnd(); }
  DWORD Size() override { return m_file->Size(); }
  bool Flush() override { return m_file->Flush(); }
  bool Close() override { return m_file->Close(); }

 private:
  std::unique_ptr<File> m_file;
  std::string m_name;
  WriteLog* m_log;
};

// Cuts the power as its base does, and logs the writes.
class LoggingFaults : public platform::FaultInjectionEnv {
 public:
  LoggingFaults() { platform::SetCurrentEnv(this); }
  ~LoggingFaults() override { platform::SetCurrentEnv(nullptr); }
  std::unique_ptr<platform::File> OpenFile(const char* path, platform::Access access,
                                           unsigned share, platform::Disposition how) override {
    std::unique_ptr<platform::File> file = FaultInjectionEnv::OpenFile(path, access, share, how);
    const char* name = std::strrchr(path, '\\');
    if (!file) return nullptr;
    return std::make_unique<LoggedFile>(std::move(file), name ? name + 1 : path, &log);
  }
  WriteLog log;
};

// A chunk of channel 3 on 2010-11, and where it has to be found.
struct Plan { WORD day, hour, minute, second, ms; DWORD length; };
struct Chunk {
  _tagCHUNKHDR header{};
  Bytes payload;
  int basket = 0;
  DWORD offset = 0;
};

Chunk Make(const Plan& plan, int basket = 0, DWORD offset = 0) {
  Chunk chunk{{0xA5, {2010, 11, 4, plan.day, plan.hour, plan.minute, plan.second, plan.ms},
               {}, 3, 0x00010000, plan.length}, {}, basket, offset};
  for (DWORD i = 0; i < plan.length; ++i) chunk.payload += static_cast<char>(i * 31 + plan.ms);
  return chunk;
}

LONG Save(CMOLRA& store, Chunk& chunk) {
  DWORD remaining = 0;
  return store.SaveData(&chunk.header, chunk.payload.data(), &remaining, 0);
}

std::string File(int basket, const char* ext) { return "FS00000" + std::to_string(basket) + ext; }

// Where the chunk's basket's index places it; 0 when it has no such key.
// Only the key's first 18 characters: the two behind them count saves of
// equal milliseconds anywhere in the process, and every stamp here is unique.
DWORD Lookup(const Chunk& chunk) {
  const SYSTEMTIME t = chunk.header.stTime;
  char key[64];
  std::snprintf(key, sizeof key, "%04d%02d%02d%02d%02d%02d%04d", t.wYear, t.wMonth, t.wDay,
                t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
  CFsIndex index;
  _tagIDXREF ref{};
  const std::string path = "D:\\MOLRA\\" + File(chunk.basket, ".CIN");
  if (!index.Open(path.c_str(), CFsFile::kModeRead, 0)) return 0;
  return index.Find(key, &ref, 18) ? ref.dwOffset : 0;
}

struct Case {
  const char* name;
  bool full;                 // basket 0 holds all the chunks it may after `before`
  std::vector<Plan> before;  // saved while the power is on
  Plan cut;                  // the save the power stops
  Plan next;                 // the first save after the restart
  bool rolls;                // the cut save moves on to basket 1
  WriteLog writes;           // of the cut save when the power stays on
};

const std::vector<Case>& Cases() {
  const std::string d0 = File(0, ".CDT"), i0 = File(0, ".CIN"), t0 = File(0, ".CTA");
  const std::string d1 = File(1, ".CDT"), i1 = File(1, ".CIN"), t1 = File(1, ".CTA");
  const std::string cat = "MOLRA.CFT";
  const DWORD day = sizeof(_tagFSBSKTBL);
  static const std::vector<Case> cases = {
      {"a new hour in the middle of a basket", false,
       {{18, 9, 30, 1, 1, 1000}, {18, 9, 30, 2, 2, 1000}}, {18, 10, 0, 3, 3, 2000},
       {18, 10, 0, 4, 4, 500}, false,
       {{d0, 30}, {d0, 2000}, {i0, 41}, {i0, 41}, {i0, 28}, {d0, 16}, {t0, 4}, {t0, 4},
        {cat, 32}, {cat, 128}}},
      {"the first chunk of a new day", false, {{18, 23, 59, 58, 5, 1000}}, {19, 0, 0, 1, 6, 2000},
       {19, 0, 0, 2, 7, 500}, false,
       {{d0, 30}, {d0, 2000}, {i0, 41}, {i0, 41}, {i0, 28}, {d0, 16}, {t0, day}, {cat, 32},
        {cat, 128}}},
      {"a rollover to the next basket", true, {{18, 9, 30, 1, 8, 100}},
       {18, 9, 30, 2, 9, 50000}, {18, 9, 30, 3, 10, 50000}, true,
       // The new basket's record goes before the head that makes it current.
       {{i0, 28}, {i1, 28}, {d1, 16}, {d1, 30}, {d1, 50000}, {i1, 41}, {i1, 28}, {d1, 16},
        {t1, day}, {cat, 128}, {cat, 32}}},
  };
  return cases;
}

class PowerCut : public molra_test::TempDrives {
 protected:
  std::string Data(int basket) const { return Real('d', "MOLRA/" + File(basket, ".CDT")); }

  // The index leads to the chunk, and there lie its header and payload.
  void ExpectStored(const Chunk& chunk) const {
    const DWORD ms = chunk.header.stTime.wMilliseconds;
    EXPECT_EQ(Lookup(chunk), chunk.offset) << ms;
    Bytes bytes(kChunkHead + chunk.payload.size(), '\0');
    std::ifstream file(Data(chunk.basket), std::ios::binary);
    file.seekg(chunk.offset).read(bytes.data(), static_cast<long>(bytes.size()));
    const Bytes head(reinterpret_cast<const char*>(&chunk.header), kChunkHead);
    EXPECT_EQ(bytes, head + chunk.payload) << ms;
  }

  void SetWritePos(int basket, DWORD writePos) const {
    std::fstream file(Data(basket), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(offsetof(_tagDATAHDR, dwWritePos));
    file.write(reinterpret_cast<const char*>(&writePos), sizeof writePos);
  }

  // On a new store of two baskets: saves the case's chunks, cuts the power
  // at write `cut` of its cut save, restarts and saves once more. `kept`:
  // the cut save counted as done.
  void Run(const Case& c, DWORD cut, bool* completed, bool* kept) {
    for (const char drive : {'c', 'd'}) std::filesystem::remove_all(Root(drive));
    _tagBSKLOC where{3, 2};
    ASSERT_EQ(CMOLRA().CreateFS(&where, 1), FS_OK);
    if (c.rolls) SetWritePos(1, 1000000);  // as an earlier cycle left it
    std::vector<Chunk> saved;
    DWORD end = kDataHead;
    for (const Plan& plan : c.before) {
      saved.push_back(Make(plan, 0, end));
      end += kChunkHead + plan.length;
    }
    Chunk pending = Make(c.cut, c.rolls ? 1 : 0, c.rolls ? kDataHead : end);
    {
      LoggingFaults faults;
      molra_test::StoreProbe store;
      ASSERT_EQ(store.OpenFS(0), FS_OK);
      for (Chunk& chunk : saved) ASSERT_EQ(Save(store, chunk), FS_OK);
      // As 70,001 saves would leave it, without making them.
      if (c.full) {
        store.Basket(0)->dwChunks = 70001;
        ASSERT_EQ(store.SaveFSInfo(0), FS_OK);
      }
      faults.log.clear();
      faults.CutPowerAtWrite(cut);
      const LONG result = Save(store, pending);
      *completed = !faults.PowerCut();
      if (*completed) {
        EXPECT_EQ(result, FS_OK);
        EXPECT_EQ(faults.log, c.writes);
        faults.Reset();
      }
    }  // the store goes down while the power is off

    Chunk next = Make(c.next, pending.basket);
    {
      molra_test::StoreProbe store;
      ASSERT_EQ(store.OpenFS(0), FS_OK);
      ASSERT_EQ(Save(store, next), FS_OK);
    }
    next.offset = Lookup(next);
    const bool wasKept = next.offset == pending.offset + kChunkHead + c.cut.length;
    // Nothing is saved by a cut at the first write, all by none at all, and
    // a chunk that one cut keeps every later cut keeps too.
    EXPECT_TRUE(wasKept ? cut > 1 : !*completed && !*kept);
    *kept = wasKept;
    for (const Chunk& chunk : saved) ExpectStored(chunk);
    if (wasKept) {
      ExpectStored(pending);
    } else {
      EXPECT_EQ(next.offset, pending.offset);  // the next chunk takes its place
    }
    ExpectStored(next);
  }
};

TEST_F(PowerCut, AtEveryWriteOfASaveTheStoreKeepsWhatWasSavedAndRecordsOn) {
  for (const Case& c : Cases()) {
    SCOPED_TRACE(c.name);
    bool kept = false;
    for (DWORD cut = 1;; ++cut) {
      SCOPED_TRACE("power cut at write " + std::to_string(cut));
      bool completed = false;
      Run(c, cut, &completed, &kept);
      if (HasFatalFailure()) return;
      if (completed) {
        EXPECT_EQ(cut - 1, c.writes.size());
        break;
      }
      ASSERT_LT(cut, 40u) << "the save never completed";
    }
  }
}

}  // namespace
