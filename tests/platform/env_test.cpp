#ifndef _WIN32
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/posix_paths.h"
#endif

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>

#include "platform/env.h"
#include "platform/fault_injection.h"
#include "support/temp_drives.h"

namespace {

namespace platform = molra::platform;
using platform::Access, platform::Disposition, platform::GetLastError;
using platform::kShareNone, platform::kShareRead, platform::kShareWrite, platform::kShareReadWrite;

using EnvTest = molra_test::TempDrives;

platform::Env* Env() { return platform::CurrentEnv(); }

std::unique_ptr<platform::File> Open(const char* path, Access access, unsigned share,
                                     Disposition disposition = Disposition::kOpenAlways) {
  return Env()->OpenFile(path, access, share, disposition);
}

#ifdef _WIN32
// No fork: what another process would hold is held in this one.
constexpr bool kForks = false;
struct Child { explicit Child(const std::function<bool()>&) {} bool ok = false; };
// The archive bit is the system's own, set on every new or written file.
constexpr DWORD kArchive = FILE_ATTRIBUTE_ARCHIVE;
constexpr DWORD kNewFile = 0;
#else
constexpr bool kForks = true;
constexpr DWORD kArchive = 0;
constexpr DWORD kNewFile = platform::kFileAttributeNormal;

// Runs `body` in a child process, which keeps whatever `body` left open
// until it is killed at the end of the object, and tells whether `body`
// succeeded.
struct Child {
  explicit Child(const std::function<bool()>& body) {
    int up[2];
    char answer;
    if (::pipe(up) != 0 || (pid = ::fork()) < 0) return;
    if (pid == 0 && body() && ::write(up[1], "y", 1) == 1) ::pause();
    if (pid == 0) ::_exit(2);
    ::close(up[1]);
    ok = ::read(up[0], &answer, 1) == 1;
    ::close(up[0]);
  }
  ~Child() {  // the child's handles go with it, unclosed
    if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
  }
  pid_t pid = -1;
  bool ok = false;
};

// Paths map natively on Windows (Win32EnvTest).
std::string Resolve(const char* path, std::string real = "") {
  return platform::ResolvePath(path, &real) ? real : "(refused)";
}

TEST_F(EnvTest, PathsMapToDriveRootsWhateverTheCaseAndSeparator) {
  EXPECT_EQ(Resolve("c:/A\\\\.\\b\\"), Real('c', "A/b"));
  EXPECT_EQ(Resolve("C:\\A\\..\\..\\b"), Real('c', "b"));  // never above the root
  EXPECT_EQ(Resolve("FSDIR\\x"), "(refused)");
  EXPECT_EQ(GetLastError(), platform::kErrorPathNotFound);
  platform::SetDriveRoot('Q', Root('q') + "/deep/root/");
  EXPECT_EQ(Resolve("q:\\x"), Root('q') + "/deep/root/x");
  EXPECT_TRUE(FileExists(Root('q') + "/deep/root"));  // made on first use

  ASSERT_TRUE(Env()->MakeDirectory("C:\\FSDIR"));
  std::ofstream(Real('c', "FSDIR/x")).put('x');
  EXPECT_EQ(Resolve("c:\\fsdir\\X"), Real('c', "FSDIR/x"));
  // Entries not there keep the case they are given.
  EXPECT_EQ(Resolve("c:\\fsdir\\none\\X"), Real('c', "FSDIR/none/X"));
  // An entry of exactly the given case wins over one that differs in case.
  std::ofstream(Real('c', "FSDIR/X")).put('x');
  EXPECT_EQ(Resolve("c:\\fsdir\\X"), Real('c', "FSDIR/X"));
  EXPECT_EQ(Resolve("c:\\fsdir\\x"), Real('c', "FSDIR/x"));
}
#endif

TEST_F(EnvTest, HiddenBitStaysWithTheFileAcrossProcesses) {
  const char* path = "C:\\MOLRA.CFT";
  EXPECT_EQ(Env()->GetAttributes(path), platform::kInvalidFileAttributes);
  EXPECT_EQ(GetLastError(), platform::kErrorFileNotFound);
  ASSERT_NE(Open(path, Access::kWrite, kShareReadWrite), nullptr);
  EXPECT_EQ(Env()->GetAttributes(path) & ~kArchive, kNewFile);
  const auto hide = [] { return Env()->SetAttributes("c:\\molra.cft", platform::kFileAttributeHidden); };
  ASSERT_TRUE(kForks ? Child(hide).ok : hide());  // another process where there is fork
  EXPECT_EQ(Env()->GetAttributes(path) & ~kArchive, platform::kFileAttributeHidden);
}

TEST_F(EnvTest, FindFilesMatchesAnyCaseAndReportsLastWrite) {
  std::filesystem::create_directories(Real('c', "FSDIR/QS"));
  for (const char* name : {"a.STI", "b.sti", "c.stix", "d.st", "b.sti.cdt"})
    std::ofstream(Real('c', std::string("FSDIR/QS/") + name)).put('x');
  const SYSTEMTIME friday{2009, 2, 5, 13, 23, 31, 30, 500};  // UTC
  ASSERT_TRUE(SetLastWrite(Real('c', "FSDIR/QS/b.sti"), friday));

  std::vector<platform::FoundFile> found;
  ASSERT_TRUE(Env()->FindFiles("c:\\fsdir\\qs\\*.STI", &found));
  std::sort(found.begin(), found.end(), [](auto& l, auto& r) { return l.name < r.name; });
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].name + " " + found[1].name, "a.STI b.sti");
  EXPECT_EQ(std::memcmp(&found[1].lastWrite, &friday, sizeof friday), 0);

  EXPECT_FALSE(Env()->FindFiles("C:\\FSDIR\\QS\\*.cdx", &found));
  EXPECT_EQ(GetLastError(), platform::kErrorFileNotFound);
}

TEST_F(EnvTest, ShareBitsAndOpenHandlesRuleOpenAndDeleteInThisAndOtherProcesses) {
  // A handle held, a second one asked for, and whether it opens.
  const struct { Access heldAccess; unsigned heldShare; Access access; unsigned share; bool opens; }
      cases[] = {
      {Access::kRead, kShareRead, Access::kWrite, kShareReadWrite, false},
      {Access::kRead, kShareRead, Access::kRead, kShareRead, true},
      {Access::kWrite, kShareRead, Access::kRead, kShareReadWrite, true},
      {Access::kWrite, kShareReadWrite, Access::kRead, kShareRead, false},
      {Access::kRead, kShareWrite, Access::kRead, kShareReadWrite, false},
      {Access::kRead, kShareReadWrite, Access::kWrite, kShareWrite, false},
      {Access::kReadWrite, kShareReadWrite, Access::kReadWrite, kShareReadWrite, true},
  };
  const char* path = "C:\\shared.dat";
  for (const auto& c : cases) {
    for (const bool inChild : {false, true}) {
      if (inChild && !kForks) continue;
      SCOPED_TRACE(testing::Message() << "case " << &c - cases << (inChild ? " child" : ""));
      {
        auto held = inChild ? nullptr : Open(path, c.heldAccess, c.heldShare);
        std::optional<Child> child;  // its handle goes with it, unclosed
        if (inChild) child.emplace([&] { return Open(path, c.heldAccess, c.heldShare).release(); });
        ASSERT_TRUE(inChild ? child->ok : held != nullptr);
        auto second = Open(path, c.access, c.share, Disposition::kOpenExisting);
        EXPECT_EQ(second != nullptr, c.opens);
        EXPECT_EQ(GetLastError(),
                  c.opens ? platform::kErrorSuccess : platform::kErrorSharingViolation);
        EXPECT_FALSE(Env()->RemoveFile(path));
        EXPECT_EQ(GetLastError(), platform::kErrorSharingViolation);
      }
      EXPECT_NE(Open(path, Access::kRead, kShareNone), nullptr);
      EXPECT_TRUE(Env()->RemoveFile(path));
    }
  }
  EXPECT_EQ(Open(path, Access::kRead, kShareRead, Disposition::kOpenExisting), nullptr);
}

TEST_F(EnvTest, FailedWritesWriteNothingAndPowerCutStopsEveryChange) {
  platform::ScopedFaultInjection faults;
  auto file = Open("C:\\a.dat", Access::kWrite, kShareReadWrite, Disposition::kCreateAlways);
  ASSERT_TRUE(Env()->AppendText("C:\\b.dat", "keep"));
  DWORD done = 7;
  // Whether each write of one byte went through.
  const auto writes = [&](int n) {
    std::string went;
    while (n-- > 0) went += file->Write("x", 1, &done) ? 'y' : 'n';
    return went;
  };
  faults->FailWriteAt(2);
  EXPECT_EQ(writes(3), "yny");
  EXPECT_FALSE(faults->PowerCut());
  faults->CutPowerAtWrite(2);
  EXPECT_EQ(writes(3), "ynn");
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(GetLastError(), platform::kErrorWriteFault);
  EXPECT_TRUE(faults->PowerCut());
  EXPECT_EQ(faults->Writes(), 3u);
  EXPECT_FALSE(file->SetEnd() || file->Reserve(8) || Env()->RemoveFile("C:\\b.dat") ||
               Env()->MakeDirectory("C:\\N") || Env()->AppendText("C:\\b.dat", "lost") ||
               Env()->SetAttributes("C:\\b.dat", platform::kFileAttributeHidden));
  EXPECT_EQ(Open("C:\\b.dat", Access::kWrite, 3, Disposition::kCreateAlways), nullptr);
  EXPECT_EQ(Open("C:\\c.dat", Access::kWrite, 3), nullptr);
  EXPECT_NE(Open("C:\\b.dat", Access::kRead, 3), nullptr);
  EXPECT_EQ(std::make_pair(FileSize(Real('c', "a.dat")), FileSize(Real('c', "b.dat"))),
            std::make_pair(3LL, 4LL));
  faults->Reset();  // power back: changes go through again
  EXPECT_EQ(writes(1), "y");
  EXPECT_NE(Open("C:\\b.dat", Access::kWrite, 3, Disposition::kCreateAlways), nullptr);
  EXPECT_EQ(std::make_pair(FileSize(Real('c', "a.dat")), FileSize(Real('c', "b.dat"))),
            std::make_pair(4LL, 0LL));
}

}  // namespace
