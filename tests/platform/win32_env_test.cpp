// The Win32 backend: where drive-letter paths lie, and its files' promises
// on reservation and 32-bit positions.
#include <windows.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/env.h"
#include "platform/win32_paths.h"
#include "support/temp_drives.h"

namespace {

namespace platform = molra::platform;
using platform::Access, platform::Disposition, platform::GetLastError;

using Win32EnvTest = molra_test::TempDrives;

platform::Env* Env() { return platform::CurrentEnv(); }

std::wstring Resolve(const char* path, std::wstring real = L"") {
  return platform::ResolvePath(path, &real) ? real : L"(refused)";
}

// The long form of one of the test's real paths.
std::wstring Long(const std::string& real) {
  return L"\\\\?\\" + std::filesystem::u8path(real).make_preferred().wstring();
}

TEST_F(Win32EnvTest, PathsMapBelowDriveRootsInLongForm) {
  EXPECT_EQ(Resolve("c:/A\\\\.\\b\\"), Long(Real('c', "A/b")));
  EXPECT_EQ(Resolve("C:\\A\\..\\..\\b"), Long(Real('c', "b")));  // never above the root
  EXPECT_EQ(Resolve("C:"), Long(Root('c') + "/"));
  EXPECT_EQ(Resolve("FSDIR\\x"), L"(refused)");
  EXPECT_EQ(GetLastError(), platform::kErrorPathNotFound);
  platform::SetDriveRoot('q', Root('q') + "/deep/root/");
  EXPECT_EQ(Resolve("q:\\x"), Long(Root('q') + "/deep/root/x"));
  EXPECT_TRUE(FileExists(Root('q') + "/deep/root"));  // made on first use
  platform::SetDriveRoot('q', "C:\\");  // a host's real drive
  EXPECT_EQ(Resolve("q:\\FSDIR\\x"), L"\\\\?\\C:\\FSDIR\\x");
}

TEST_F(Win32EnvTest, RootsBeyondMaxPathAndOutsideAsciiHoldFiles) {
  const std::string parent = Root('d') + "/" + std::string(120, 'x') + "/" + std::string(120, 'y');
  const std::string name = "\xC3\x9C" "ber-\xE6\x98\xA0\xE5\x83\x8F";  // U+00DC, U+6620, U+50CF
  platform::SetDriveRoot('d', parent + "/" + name);
  platform::SetDriveRoot('e', parent);
  ASSERT_TRUE(Env()->MakeDirectory("D:\\FSDIR"));
  auto file = Env()->OpenFile("d:\\fsdir\\MOLRA.CFT", Access::kReadWrite, platform::kShareReadWrite,
                              Disposition::kOpenAlways);
  ASSERT_NE(file, nullptr);
  DWORD done = 0;
  ASSERT_TRUE(file->Write("abc", 3, &done) && file->Close());
  std::uint64_t size = 0;
  EXPECT_TRUE(Env()->FileSize("D:\\FSDIR\\molra.cft", &size));
  EXPECT_EQ(size, 3u);
  std::vector<platform::FoundFile> found;
  ASSERT_TRUE(Env()->FindFiles("E:\\*", &found));
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].name, name);
  ASSERT_TRUE(Env()->SetAttributes("D:\\FSDIR\\MOLRA.CFT", platform::kFileAttributeHidden));
  EXPECT_NE(Env()->GetAttributes("D:\\FSDIR\\MOLRA.CFT") & FILE_ATTRIBUTE_HIDDEN, 0u);
  EXPECT_TRUE(Env()->RemoveFile("D:\\FSDIR\\MOLRA.CFT"));
  EXPECT_FALSE(Env()->Exists("D:\\FSDIR\\MOLRA.CFT"));
}

TEST_F(Win32EnvTest, ReserveGrowsWithZerosNeverCutsAndPositionsStayWithin32Bits) {
  auto file = Env()->OpenFile("C:\\r.dat", Access::kReadWrite, platform::kShareReadWrite,
                              Disposition::kCreateAlways);
  ASSERT_NE(file, nullptr);
  DWORD done = 0;
  ASSERT_TRUE(file->Write("abc", 3, &done));
  ASSERT_TRUE(file->Reserve(1 << 20));
  EXPECT_TRUE(file->Reserve(16));
  EXPECT_EQ(file->Size(), 1u << 20);
  std::string bytes(2 << 20, 'x');
  ASSERT_TRUE(file->ReadAt(0, &bytes[0], 2 << 20, &done));  // a short read at the end
  EXPECT_EQ(done, 1u << 20);
  EXPECT_EQ(bytes.substr(0, done), "abc" + std::string((1 << 20) - 3, '\0'));

  EXPECT_EQ(file->Seek(-1, platform::kFileBegin), platform::kInvalidSetFilePointer);
  EXPECT_EQ(GetLastError(), platform::kErrorNegativeSeek);
  EXPECT_EQ(file->Seek(0x7FFFFFFF, platform::kFileBegin), 0x7FFFFFFFu);
  EXPECT_EQ(file->Seek(0x7FFFFFFF, platform::kFileCurrent), 0xFFFFFFFEu);
  EXPECT_EQ(file->Seek(1, platform::kFileCurrent), platform::kInvalidSetFilePointer);
  EXPECT_EQ(GetLastError(), platform::kErrorInvalidParameter);
  EXPECT_FALSE(file->WriteAt(0x80000000u, "x", 1, &done));
  EXPECT_EQ(GetLastError(), platform::kErrorNegativeSeek);
  EXPECT_EQ(file->Size(), 1u << 20);  // seeks alone never grow it

  auto reader = Env()->OpenFile("C:\\r.dat", Access::kRead, platform::kShareReadWrite,
                                Disposition::kOpenExisting);
  ASSERT_NE(reader, nullptr);
  EXPECT_FALSE(reader->Write("x", 1, &done) || reader->Reserve(2 << 20));
  EXPECT_EQ(GetLastError(), platform::kErrorAccessDenied);
}

}  // namespace
