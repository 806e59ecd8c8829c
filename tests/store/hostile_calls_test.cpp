// Calls a careless host can make: null pointers and arrays shorter than
// what a call could fill. Each answers without a crash and writes nothing
// past the count it was given or the size it documents.
#include <algorithm>
#include <fstream>
#include <vector>

#include "playback/playback_fixture.h"

namespace molra_test {
namespace {

using HostileCallsTest = PlaybackTest;

// A buffer of `size` bytes with guard bytes behind it.
struct Guarded {
  explicit Guarded(size_t size) : bytes(size + 64, 0xA7), size(size) {}
  template <typename T> T* As() { return reinterpret_cast<T*>(bytes.data()); }
  bool GuardIntact() const { return std::count(bytes.begin() + size, bytes.end(), 0xA7) == 64; }
  std::vector<BYTE> bytes;
  size_t size;
};

TEST_F(HostileCallsTest, NullPointersGetAClearAnswer) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  Save(0, At(10, 0, 1), true);
  _tagCHUNKHDR chunk{1, At(10, 0, 2), {}, 0, 0, 8};
  BYTE* const p = payload.data();
  DWORD remaining = 0;
  EXPECT_EQ(recorder.SaveData(nullptr, p, &remaining, 0), FS_ERR_PARAM);
  EXPECT_EQ(recorder.SaveData(&chunk, nullptr, &remaining, 0), FS_ERR_PARAM);
  EXPECT_EQ(recorder.SaveData(&chunk, p, nullptr, 0), FS_OK);
  EXPECT_EQ(recorder.GetOldestBasketInfoAndBasketControl(3650, nullptr), 0);
  EXPECT_EQ(recorder.DelTBLSaveDataInfo(nullptr, nullptr), FS_OK);
  Play();

  const SYSTEMTIME t = At(10, 0, 1);
  for (const LONG r : {player.ReadData(nullptr, p, 1), player.ReadDataEx(nullptr, p),
                       player.ReadDataEx2(nullptr, p), player.ReadNextData(nullptr, p, 1),
                       player.ReadPrevData(nullptr, p, 1), player.ReadNextData2(nullptr, p, 1, 1),
                       player.ReadPrevDataEx2(nullptr, p, 1), player.GetBaksetInfo(0, nullptr),
                       player.GetSaveDateInfo(2010, 11, nullptr, 31),
                       player.GetSaveTimeInfo(2010, 11, 18, 0, nullptr, nullptr),
                       player.GetSaveMinuteInfo(2010, 11, 18, 10, 0, 0, nullptr, 1)})
    EXPECT_EQ(r, FS_ERR_PARAM);
  SYSTEMTIME found{};
  const LONG zeros[] = {player.IntervalSystemTime(nullptr, &t, 4),
                        player.IntervalSystemTime(&t, nullptr, 4),
                        player.SkipNextFrame(nullptr, 0, 1, 0),
                        player.GetTimeZoneInfoFromFile(nullptr),
                        player.ChangeLocalToSystemTime(static_cast<_tagCHUNKHDR*>(nullptr), 1),
                        player.IsEqualDay(nullptr, t, found),
                        player.SaveTimeReadEx(nullptr, t, nullptr),
                        player.GetBaksetFirst(0, nullptr, nullptr)};
  for (const LONG& r : zeros) EXPECT_EQ(r, 0) << "answer " << &r - zeros;
  EXPECT_EQ(player.SaveTimeRead(nullptr, t, nullptr), 1);
  _tagFSBSKTBL record{};
  std::vector<DWORD> cells(384);
  player.GetSaveHourMinus(1, nullptr, cells.data(), CTime(0));
  player.GetSaveHourPlus(1, &record, nullptr, CTime(0));
  player.FsNoExistData(nullptr);
  EXPECT_EQ(DefectLog(), "");
}

TEST_F(HostileCallsTest, OutputsStopAtTheirCountOrTheirDocumentedSize) {
  ASSERT_NO_FATAL_FAILURE(Make(1));
  Save(3, At(10, 5, 1, 0, 30), true);  // the 30th of a 30-day month
  Play();
  // Days: never more entries than counted, whatever the month holds.
  for (const LONG count : {0L, 10L, 29L, 30L, 31L}) {
    Guarded days(sizeof(int) * static_cast<size_t>(count));
    ASSERT_EQ(player.GetSaveDateInfo(2010, 11, days.As<int>(), count), FS_OK);
    EXPECT_TRUE(days.GuardIntact()) << count;
    EXPECT_EQ(count >= 30 ? days.As<int>()[29] : 1, 1) << count;
  }
  EXPECT_EQ(player.GetSaveDateInfo(2010, 11, Guarded(4).As<int>(), -1), FS_ERR_PARAM);

  // Fixed-size outputs: hour grid, minute cells, day-file rows, a basket
  // record, folded hours, a zone bias.
  Guarded hours(384 * sizeof(DWORD)), minutes(60 * sizeof(DWORD)), rows(400), info(128),
      folded(384 * sizeof(DWORD)), zone(sizeof(LONG));
  EXPECT_EQ(player.GetSaveTimeInfo(2010, 11, 30, 0, hours.As<DWORD>(), nullptr), FS_OK);
  EXPECT_NE(hours.As<DWORD>()[3 * 24 + 10], 0u);
  EXPECT_EQ(player.GetSaveMinuteInfo(2010, 11, 30, 10, 0, 3, minutes.As<DWORD>(), 0), FS_OK);
  EXPECT_NE(minutes.As<DWORD>()[5], 0u);
  ASSERT_EQ(player.SaveTimeWrite(At(10, 0, 0, 0, 30), 3), 1);
  EXPECT_EQ(player.SaveTimeRead(nullptr, At(0, 0, 0, 0, 30), rows.As<char>()), 1);
  EXPECT_EQ(player.SaveTimeReadEx(nullptr, At(0, 0, 0, 0, 30), rows.As<char>()), 1);
  EXPECT_EQ(player.GetBaksetInfo(0, info.As<_tagFSBSKINFO>()), FS_OK);
  _tagFSBSKTBL record{};
  for (auto& row : record.dwHour) std::fill(std::begin(row), std::end(row), 1);
  for (const int side : {-1, 1}) {
    player.GetSaveHourMinus(side, &record, folded.As<DWORD>(), CTime(0));
    player.GetSaveHourPlus(side, &record, folded.As<DWORD>(), CTime(0));
  }
  std::ofstream(Real('c', "FSDIR/tz.inf"), std::ios::binary) << "0123456789";
  EXPECT_EQ(player.GetTimeZoneInfoFromFile(zone.As<TIME_ZONE_INFORMATION>()), 1);
  for (const Guarded* out : {&hours, &minutes, &rows, &info, &folded, &zone})
    EXPECT_TRUE(out->GuardIntact());
}

}  // namespace
}  // namespace molra_test
