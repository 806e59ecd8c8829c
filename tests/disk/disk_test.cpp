#include <filesystem>

#include "disk/fs_file.h"
#include "disk/status_log.h"
#include "molra/platform.h"
#include "platform/fault_injection.h"
#include "support/temp_drives.h"

using molra::detail::CFsFile;

namespace {

namespace platform = molra::platform;

// A line of the status log, stamped with the fixed clock.
std::string Logged(const std::string& text) { return text + " 2010:11:18 - 9:30:15\n"; }

// Drives with the store's directory in place, so that the status log
// "c:\FSDIR\status.dat" can be written and read back.
class DiskTest : public molra_test::TempDrives {
 protected:
  void SetUp() override {
    TempDrives::SetUp();
    ASSERT_TRUE(platform::Env::Default()->MakeDirectory("C:\\FSDIR"));
  }
  std::string LogPath() const { return Real('c', "FSDIR/status.dat"); }
  std::string Log() const { return ReadAll(LogPath()); }
  CFsFile file;
};

TEST_F(DiskTest, OpenMakesAbsentFilesButNoDirectoriesAndRetriesASharedFile) {
  EXPECT_EQ(file.Open("C:\\FSDIR\\new.dat", CFsFile::kModeRead), 1);
  EXPECT_EQ(FileSize(Real('c', "FSDIR/new.dat")), 0);
  EXPECT_EQ(file.Open("C:\\FSDIR\\QS\\x.sti", CFsFile::kModeReadWrite), 0);
  EXPECT_FALSE(file.IsOpen() || FileExists(Real('c', "FSDIR/QS")));

  const std::string path = "c:\\FSDIR\\busy.cdt";
  auto holder = platform::Env::Default()->OpenFile(
      path.c_str(), platform::Access::kRead, platform::kShareNone, platform::Disposition::kOpenAlways);
  ASSERT_NE(holder, nullptr);
  EXPECT_EQ(file.Open(path.c_str(), CFsFile::kModeRead), 0);
  std::string expected = Logged("fail to Open File System 3 : C:\\FSDIR\\QS\\x.sti");
  for (int retry = 1; retry <= 5; ++retry)
    expected += Logged("retry " + std::to_string(retry) + " : " + path);
  EXPECT_EQ(Log(), expected + Logged("fail to Open File System - Sharing Violation : " + path));
  holder.reset();
  EXPECT_EQ(file.Open(path.c_str(), CFsFile::kModeRead), 1);
}

TEST_F(DiskTest, ReadsAndSizesAreExactAndAClosedObjectRefusesEverything) {
  char buffer[8] = "-------";
  EXPECT_EQ(file.GetSize() + file.Seek(5, 0) + file.Read(buffer, 1) + file.Close(), 0u);
  ASSERT_EQ(file.Open("C:\\FSDIR\\a.dat", CFsFile::kModeReadWrite), 1);
  EXPECT_EQ(file.Write("0123456789", 10) + file.Seek(5, 0), 2);
  EXPECT_EQ(file.Read(buffer, 6), 0);  // short by one: what was there still arrives
  EXPECT_EQ(std::string(buffer, 6), "56789-");
  ASSERT_EQ(file.Open("C:\\FSDIR\\a.dat", CFsFile::kModeRead), 1);
  EXPECT_EQ(file.Write("x", 1), 0);  // a reading handle cannot write

  // A sized file is cut or grown, its bytes kept, and the handle stays at its end.
  ASSERT_EQ(file.CreateSized("c:\\fsdir\\A.DAT", 4), 1);
  EXPECT_EQ(file.Write("Z", 1), 1);
  ASSERT_EQ(file.CreateSized("C:\\FSDIR\\new.cin", 4096), 1);
  EXPECT_EQ(ReadAll(Real('c', "FSDIR/a.dat")), "0123Z");
  EXPECT_EQ(ReadAll(Real('c', "FSDIR/new.cin")), std::string(4096, '\0'));
  // The refused write is the only line: short reads leave none.
  EXPECT_EQ(Log(), Logged("fail to write C:\\FSDIR\\a.dat at 0 : error 5"));
}

TEST_F(DiskTest, FailedWritesSeeksReservationsAndClosesLeaveALineEach) {
  platform::ScopedFaultInjection faults;
  CFsFile file;  // closed before the faults end
  ASSERT_EQ(file.Open("C:\\FSDIR\\a.dat", CFsFile::kModeReadWrite), 1);
  ASSERT_EQ(file.Write("0123456789", 10), 1);
  faults->FailWriteAt(1);
  EXPECT_EQ(file.Write("x", 1), 0);
  EXPECT_EQ(file.Seek(0x80000000u, 0), 0);
  faults->FillDiskAfter('C', 1000);  // room for the log's lines, not for the files
  const std::string block(2000, 'x');
  EXPECT_EQ(file.WriteAt(4, block.data(), 2000), 0);
  EXPECT_EQ(file.CreateSized("C:\\FSDIR\\b.cdt", 4096), 0);
  std::string expected = Logged("fail to write C:\\FSDIR\\a.dat at 10 : error 29") +
                         Logged("fail to seek C:\\FSDIR\\a.dat at 2147483648 : error 131") +
                         Logged("fail to write C:\\FSDIR\\a.dat at 4 : error 112") +
                         Logged("fail to reserve C:\\FSDIR\\b.cdt at 4096 : error 112");
  EXPECT_EQ(Log(), expected);

  // A close that fails is retried on a sharing violation only, and the file stays open.
  std::filesystem::remove(LogPath());
  faults->FailCloses(1, platform::kErrorInvalidHandle);
  EXPECT_EQ(file.Close(), 0);
  faults->FailCloses(6, platform::kErrorSharingViolation);
  EXPECT_EQ(file.Close(), 0);
  EXPECT_TRUE(file.IsOpen());
  std::string retries;
  for (int i = 0; i < 5; ++i) retries += Logged("retry  - close");
  expected = Logged("ERROR_INVALID_HANDLE - close : 6 \n") + retries +
             Logged("fail to Open File System - Sharing Violation - close : 32 \n");
  EXPECT_EQ(Log(), expected);
  faults->FailCloses(5, platform::kErrorSharingViolation);  // the sixth try goes through
  EXPECT_EQ(file.Close(), 1);
  EXPECT_EQ(Log(), expected + retries);
}

TEST_F(DiskTest, LogLinesEndInLocalTimeUnpaddedAndTheLogStartsAfreshAtTenMiB) {
  m_clock = SYSTEMTIME{2009, 12, 4, 31, 23, 5, 7, 0};  // an hour east, it is a new year
  platform::SetClock(&m_clock);
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = -60;
  platform::SetTimeZone(&zone);
  const std::string line = "y 2010:1:1 - 0:5:7\n";
  for (const long long size : {0LL, 10485759LL, 10485760LL}) {  // sparse: quick to make
    if (size) std::filesystem::resize_file(LogPath(), size);
    molra::detail::FsStatusLog("y");
    EXPECT_EQ(FileSize(LogPath()), (size < 10485760 ? size : 0) + static_cast<long long>(line.size()));
  }
  EXPECT_EQ(Log(), line);
}

}  // namespace
