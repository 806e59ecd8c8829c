// Quick-search day files: marks, the month's layout, rows in memory, old
// files going, and local days read back from UTC files.
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "molra/molra.h"
#include "molra/platform.h"
#include "platform/clock.h"
#include "platform/env.h"
#include "platform/fault_injection.h"
#include "support/temp_drives.h"

namespace molra_test {
namespace {

namespace platform = molra::platform;
namespace fs = std::filesystem;
using platform::Access;

SYSTEMTIME At(WORD month, WORD day, WORD hour = 0, WORD minute = 0, WORD year = 2010) {
  return SYSTEMTIME{year, month, 0, day, hour, minute, 0, 0};
}

// Sixteen rows of a channel byte and 24 hour bytes: a day file as laid out
// (0), or memory after SaveTimeSet(1, -1) ('0'); the hours marked set to 0x31.
Bytes Rows(char hour = 0, std::vector<std::pair<int, int>> marked = {}) {
  Bytes bytes(400, hour);
  for (int r = 0; r < 16; ++r) bytes[r * 25] = static_cast<char>(r);
  for (const auto& [channel, h] : marked) bytes[channel * 25 + 1 + h] = 0x31;
  return bytes;
}

Bytes Memory(const CMOLRA& store) {
  return Bytes(reinterpret_cast<const char*>(store.m_SaveTime), 400);
}

struct Probe : CMOLRA {
  void FirstBasketFrom(const SYSTEMTIME& first) {
    m_FsHdr.dwBaskets = 1;
    m_ppBasket = std::make_shared<BasketList>(1);
    (*m_ppBasket)[0].stFirst = first;
  }
};

class DayFileTest : public TempDrives {
 protected:
  void SetUp() override {
    TempDrives::SetUp();
    fs::create_directories(Real('c', "FSDIR"));  // the store's own directory
  }
  // A bias, with or without the northern daylight rule (second Sunday of
  // March to first Sunday of November, at 2:00); set before the store is made.
  static void InZone(LONG bias, bool north = false) {
    const SYSTEMTIME none{}, daylight{0, 3, 0, 2, 2, 0, 0, 0}, standard{0, 11, 0, 1, 2, 0, 0, 0};
    const TIME_ZONE_INFORMATION zone{bias,          {}, north ? standard : none, 0,
                                     {},            north ? daylight : none,    north ? -60 : 0};
    platform::SetTimeZone(&zone);
  }
  std::string Day(const SYSTEMTIME& st) const {
    const int date = st.wYear * 10000 + st.wMonth * 100 + st.wDay;
    return Real('c', "FSDIR/QS/" + std::to_string(date) + ".sti");
  }
  std::string Today() const { return Day(At(11, 18)); }
  size_t Files() const {
    std::error_code ignored;
    fs::directory_iterator dir(Real('c', "FSDIR/QS"), ignored);
    return static_cast<size_t>(std::distance(dir, {}));
  }
  static void Put(const std::string& path, const Bytes& bytes) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
  }
  static void Written(const std::string& path, const SYSTEMTIME& utc) {
    Put(path, "x");
    ASSERT_TRUE(SetLastWrite(path, utc));
  }
};

TEST_F(DayFileTest, FirstMarkLaysOutTheLocalMonthFromTodayAndLaterMarksOneByte) {
  m_clock = At(11, 17, 20);  // 18 November, 05:00 local
  platform::SetClock(&m_clock);
  InZone(-540);
  // Old day files go by their last write before the first basket's local
  // month, whatever their names say: a minute before June 1 local and long
  // before; one written at June 1 and other files stay.
  const std::string qs = Real('c', "FSDIR/QS/");
  const std::pair<const char*, SYSTEMTIME> old[] = {
      {"20100615.sti", At(5, 31, 14, 59)}, {"20100501.sti", At(5, 31, 15)},
      {"20101231.sti", At(1, 1, 0, 0, 2009)}, {"20100101.txt", At(1, 1, 0, 0, 2009)}};
  for (const auto& [name, written] : old) Written(qs + name, written);
  Probe store;
  store.FirstBasketFrom(At(6, 20, 13));
  // The mark's own date gets no file: only the layout happens.
  EXPECT_EQ(store.SaveTimeWrite(At(11, 17, 20), 3), 0);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(FileExists(qs + old[i].first), i % 2 == 1) << i;
  EXPECT_EQ(Files(), 16u);  // days 18 to 31, though November has 30, and two old files
  for (int d = 18; d <= 31; ++d) EXPECT_EQ(ReadAll(Day(At(11, d))), Rows()) << d;
  EXPECT_EQ(Memory(store), Rows());
  EXPECT_EQ(store.SaveTimeWrite(At(11, 18, 5, 40), 3), 1);
  EXPECT_EQ(store.SaveTimeWriteEx(At(11, 18, 23), 15), 1);
  EXPECT_EQ(ReadAll(Today()), Rows(0, {{3, 5}, {15, 23}}));
  EXPECT_EQ(Memory(store), Rows(0, {{3, 5}, {15, 23}}));
  // Today's file gone, in a month laid out: made empty, with memory and old
  // files left alone.
  fs::remove(Today());
  Written(Day(At(5, 2)), At(5, 2));
  store.SaveTimeSet(1, -1);
  EXPECT_EQ(store.SaveTimeWrite(At(11, 18, 5), 3), 1);
  EXPECT_EQ(ReadAll(Today()), Bytes(81, 0) + "\x31");
  EXPECT_EQ(Memory(store), Rows('0', {{3, 5}}));
  EXPECT_EQ(Files(), 17u);
}

// A mark is refused while another reads the day file; a read, while
// another may write it.
TEST_F(DayFileTest, MarksAndReadsKeepOutOfEachOther) {
  CMOLRA store;
  ASSERT_EQ(store.InitSaveTime(), 1);
  std::unique_ptr<platform::File> other;  // held on for the reads below
  for (const bool writer : {false, true}) {
    other.reset();
    other = platform::CurrentEnv()->OpenFile(
        "C:\\FSDIR\\QS\\20101118.sti", writer ? Access::kReadWrite : Access::kRead,
        writer ? platform::kShareReadWrite : platform::kShareRead,
        platform::Disposition::kOpenExisting);
    ASSERT_TRUE(other);
    EXPECT_EQ(store.SaveTimeWrite(At(11, 18, 5), 3), writer ? 1 : 0);
  }
  Bytes rows(400, 'x');
  EXPECT_EQ(store.SaveTimeReadEx(nullptr, At(11, 18), rows.data()), 0);
  EXPECT_EQ(store.SaveTimeLoad(At(11, 18)), 0);
}

// A store not loaded has no first basket to date old files by: all stay.
TEST_F(DayFileTest, ARowThatFailsEndsTheLayoutButNotTheMarkAndNoStoreLoadedKeepsOldFiles) {
  Written(Day(At(5, 1)), At(5, 1));
  platform::ScopedFaultInjection faults;
  faults->FailWriteAt(20);  // the fourth row of the second file
  CMOLRA store;
  EXPECT_EQ(store.SaveTimeWrite(At(11, 19, 5), 3), 1);
  EXPECT_EQ(ReadAll(Day(At(11, 19))), Rows().substr(0, 75) + Bytes(6, 0) + "\x31");
  EXPECT_FALSE(FileExists(Day(At(11, 20))));
  EXPECT_TRUE(FileExists(Day(At(5, 1))));
}

// Rows in memory are reset by channel; nothing outside the rows is touched,
// and no call about them makes a file.
TEST_F(DayFileTest, SetResetsNamedRowsAndReadsCopyWholeRowsAndTellTheHostWhyARowFailed) {
  std::vector<std::string> boxes;
  platform::SetMessageBoxHook([&boxes](const char* text) { boxes.emplace_back(text); });
  CMOLRA store;
  EXPECT_EQ(store.SaveTimeSet(0, -1) + store.SaveTimeSet(1, 15), 2);
  EXPECT_EQ(Memory(store), Bytes(375, 0) + Rows('0').substr(375));
  EXPECT_EQ(store.SaveTimeSet(1, -1), 1);
  for (const auto& [channel, hour] : {std::pair<char, WORD>{-1, 5}, {16, 5}, {3, 24}}) {
    EXPECT_EQ(store.SaveTimeWriteEx(At(11, 18, hour), channel), 0) << int{channel} << ' ' << hour;
  }
  EXPECT_EQ(store.SaveTimeSet(1, -2) + store.SaveTimeSet(1, 16), 0);
  EXPECT_EQ(Memory(store), Rows('0'));
  EXPECT_FALSE(fs::exists(Real('c', "FSDIR/QS")));
  const Bytes file = Rows(0, {{3, 5}});
  Put(Today(), file.substr(0, 82));  // three rows whole, the fourth cut short
  Bytes rows(400, 'x');
  EXPECT_EQ(store.SaveTimeReadEx(nullptr, At(11, 18), rows.data()), 1);
  EXPECT_EQ(rows, file.substr(0, 75) + Bytes(325, 0));
  EXPECT_EQ(Memory(store), file.substr(0, 82) + Rows('0').substr(82));
  Put(Today(), file);
  EXPECT_EQ(store.SaveTimeLoad(At(11, 18)), 1);
  EXPECT_EQ(Memory(store), file);
  EXPECT_EQ(boxes, std::vector<std::string>{});
  // A missing file reads as no marks and is left behind, empty.
  EXPECT_EQ(store.SaveTimeReadEx(nullptr, At(11, 20), rows.data()), 1);
  EXPECT_EQ(rows, Bytes(400, 0));
  EXPECT_EQ(FileSize(Day(At(11, 20))), 0);
  EXPECT_EQ(store.SaveTimeDelete(At(11, 20)) + store.SaveTimeDelete(At(11, 20)), 2);
  EXPECT_FALSE(FileExists(Day(At(11, 20))));

  // The first two reads fail: those rows stay zero in the output, and as
  // they were in memory.
  for (const auto& [error, load, box] : {std::tuple{38u, false, "ERROR_HANDLE_EOF-Read"},
                                         {997u, true, "ERROR_IO_PENDING-Load"}, {30u, false, ""}}) {
    SCOPED_TRACE(error);
    boxes.clear();
    store.SaveTimeSet(1, -1);
    platform::ScopedFaultInjection faults;
    faults->FailReads(2, error);
    EXPECT_EQ(load ? store.SaveTimeLoad(At(11, 18))
                   : store.SaveTimeReadEx(nullptr, At(11, 18), rows.data()),
              1);
    EXPECT_EQ(boxes, *box ? std::vector<std::string>(2, box) : std::vector<std::string>{});
    EXPECT_EQ((load ? Memory(store) : rows).substr(0, 50),
              load ? Rows('0').substr(0, 50) : Bytes(50, 0));
  }
  platform::SetMessageBoxHook(nullptr);
}

TEST_F(DayFileTest, ReadShiftsMarkedUtcHoursIntoTheLocalDay) {
  struct Mark { int day, hour, channel; };  // day: -1, 0 or 1 from the one asked
  const struct {
    const char* name; LONG bias; bool north; SYSTEMTIME day; std::vector<Mark> marks;
    bool direct;                             // the file of the date as it is
    std::vector<std::pair<int, int>> local;  // else the channels and local hours marked
  } cases[] = {
      {"UTC", 0, false, At(11, 18), {{0, 5, 7}, {1, 0, 7}}, true, {}},
      {"half-hour zone", -330, false, At(11, 18), {{0, 5, 7}, {-1, 23, 7}}, true, {}},
      {"nine ahead", -540, false, At(11, 18), {{-1, 15, 0}, {0, 14, 0}, {-1, 14, 1}, {0, 15, 1}},
       false, {{0, 0}, {0, 23}}},
      {"daylight begins", 300, true, At(3, 14), {{0, 6, 4}, {0, 7, 4}}, false, {{4, 1}, {4, 3}}},
      {"daylight ends", 300, true, At(11, 7), {{0, 5, 4}, {0, 6, 4}}, false, {{4, 1}}},
      {"behind at a month's end", 300, false, At(11, 30),
       {{1, 2, 9}, {1, 4, 9}, {1, 5, 9}, {0, 4, 9}, {0, 5, 9}}, false, {{9, 0}, {9, 21}, {9, 23}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(Real('c', "FSDIR/QS"));
    InZone(c.bias, c.north);
    for (const Mark& m : c.marks) {
      const std::string path =
          Day(platform::UnixMillisToStamp(platform::StampToUnixMillis(c.day) + m.day * 86400000LL));
      Bytes bytes = FileExists(path) ? ReadAll(path) : Rows();
      Put(path, bytes.replace(m.channel * 25 + 1 + m.hour, 1, "\x31"));
    }
    CMOLRA store;
    Bytes rows(400, 'x');
    EXPECT_EQ(store.SaveTimeRead(nullptr, c.day, rows.data()), 1);
    Bytes expected(400, 0);
    for (const auto& [channel, hour] : c.local) expected[channel * 25 + 1 + hour] = 1;
    EXPECT_EQ(rows, c.direct ? ReadAll(Day(c.day)) : expected);
    EXPECT_EQ(Memory(store), ReadAll(Day(c.day)));
  }
}

}  // namespace
}  // namespace molra_test
