#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/error_text.h"
#include "tests/support/process.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

struct stat Status(const fs::path& path) {
  struct stat status = {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

std::vector<std::string> Names(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

/// A folder with one of everything in SRC, a place for DST beside it, and the program.
class OrbaCopyTest : public testing::Test {
 protected:
  OrbaCopyTest() {
    // An ordinary user works in here in some tests.
    fs::permissions(Root(), fs::perms::others_exec | fs::perms::others_read, fs::perm_options::add);
    WriteFile(source_ / "INFO", "version=\"2.0\"\n");
    WriteFile(source_ / "lib/codec.so", std::string(300'000, 'x'));
    WriteFile(source_ / "lib/empty", "");
    fs::create_symlink("codec.so", source_ / "lib/codec.so.1");
    fs::create_symlink("/nowhere", source_ / "dangling");
    chmod((source_ / "lib/codec.so").c_str(), 0755);
    chmod((source_ / "INFO").c_str(), 0640);
    chmod((source_ / "lib").c_str(), 0750);
    fs::create_directory(parent_);
    SetTime(source_ / "lib/codec.so", 1'000'000'000);
    SetTime(source_ / "dangling", 1'000'000'001);
    SetTime(source_ / "lib", 1'000'000'002);
    SetTime(source_, 1'000'000'003);
  }

  static void SetTime(const fs::path& path, time_t seconds) {
    const std::array times = {timespec{seconds, 5}, timespec{seconds, 6}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW), 0);
  }

  ProcessResult Copy(const ProcessOptions& options = {}) const { return Copy(source_, target_, options); }
  static ProcessResult Copy(const fs::path& source, const fs::path& target, const ProcessOptions& options = {}) {
    return RunProgram({ORBA_COPY, "-a", source, target}, options);
  }

  static ProcessOptions Failing(int call, int error) {
    ProcessOptions options;
    options.before_exec = [=] { FailSystemCall(call, error); };
    return options;
  }

  void ExpectWhole(const fs::path& target) const {
    EXPECT_EQ(ReadFile(target / "INFO"), "version=\"2.0\"\n");
    EXPECT_EQ(ReadFile(target / "lib/codec.so"), std::string(300'000, 'x'));
    EXPECT_TRUE(fs::is_regular_file(target / "lib/empty"));
    EXPECT_EQ(fs::read_symlink(target / "lib/codec.so.1"), "codec.so");
    EXPECT_EQ(fs::read_symlink(target / "dangling"), "/nowhere");
    for (const char* name : {"", "INFO", "lib", "lib/codec.so", "lib/empty", "dangling"}) {
      const struct stat original = Status(source_ / name);
      const struct stat copy = Status(target / name);
      EXPECT_EQ(copy.st_mode, original.st_mode) << name;
      EXPECT_EQ(copy.st_uid, original.st_uid) << name;
      EXPECT_EQ(copy.st_gid, original.st_gid) << name;
      EXPECT_EQ(copy.st_mtim.tv_sec, original.st_mtim.tv_sec) << name;
      EXPECT_EQ(copy.st_mtim.tv_nsec, original.st_mtim.tv_nsec) << name;
    }
  }

  void ExpectFailedWithoutTrace(const ProcessResult& result, const std::string& reason) const {
    EXPECT_TRUE(result.EndedBy(SIGTERM)) << result;
    EXPECT_THAT(result.err, StartsWith("orba-copy: "));
    EXPECT_THAT(result.err, HasSubstr(reason));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_THAT(Names(parent_), IsEmpty());
  }

  bool SameInode(const std::string& name) const {
    return Status(source_ / name).st_ino == Status(target_ / name).st_ino;
  }

  TempDir folder_;
  fs::path source_ = folder_.path() / "src";
  fs::path parent_ = folder_.path() / "place";
  fs::path target_ = parent_ / "dst";
};

TEST_F(OrbaCopyTest, CopyKeepsContentsLinksModesOwnersAndTimes) {
  const ProcessResult result = Copy();
  EXPECT_TRUE(result.Exited(0)) << result;
  EXPECT_EQ(result.out + result.err, "");
  ExpectWhole(target_);
  EXPECT_THAT(Names(parent_), testing::ElementsAre("dst"));
}

TEST_F(OrbaCopyTest, CopyLinksFilesOnOneFileSystem) {
  ASSERT_TRUE(Copy().Exited(0));
  EXPECT_TRUE(SameInode("INFO"));
  EXPECT_TRUE(SameInode("lib/codec.so"));
}

TEST_F(OrbaCopyTest, CopyToAnotherFileSystemCopiesTheBytes) {
  for (const int error : {EXDEV, EPERM, EMLINK, EOPNOTSUPP}) {
    const ProcessResult result = Copy(Failing(SYS_linkat, error));
    EXPECT_TRUE(result.Exited(0)) << result;
    EXPECT_FALSE(SameInode("lib/codec.so"));
    ExpectWhole(target_);
    fs::remove_all(target_);
  }
}

TEST_F(OrbaCopyTest, CopyAcrossRealFileSystemsIsWhole) {
  std::string memory = "/dev/shm/orba-copy-XXXXXX";
  ASSERT_NE(mkdtemp(memory.data()), nullptr);
  const fs::path target = fs::path(memory) / "dst";
  const ProcessResult result = Copy(source_, target);
  EXPECT_TRUE(result.Exited(0)) << result;
  ExpectWhole(target);
  fs::remove_all(memory);
}

TEST_F(OrbaCopyTest, CopyWithoutAnyKernelHelpReadsAndWrites) {
  ProcessOptions options;
  options.before_exec = [] {
    FailSystemCall(SYS_linkat, EXDEV);
    FailSystemCall(SYS_ioctl, EOPNOTSUPP);
    FailSystemCall(SYS_copy_file_range, ENOSYS);
  };
  EXPECT_TRUE(Copy(options).Exited(0));
  ExpectWhole(target_);
}

TEST_F(OrbaCopyTest, CopyWithoutSyncfsSyncsEveryFile) {
  EXPECT_TRUE(Copy(Failing(SYS_syncfs, ENOSYS)).Exited(0));
  ExpectWhole(target_);
}

TEST_F(OrbaCopyTest, CopyWithoutSyncfsFailsWhenAFileCannotBeSynced) {
  ProcessOptions options;
  options.before_exec = [] {
    FailSystemCall(SYS_syncfs, ENOSYS);
    FailSystemCall(SYS_fsync, EIO);
  };
  ExpectFailedWithoutTrace(Copy(options), test::ErrorText(EIO));
}

TEST_F(OrbaCopyTest, CopyFailsWhenTheDataDoNotReachTheDisk) {
  ExpectFailedWithoutTrace(Copy(Failing(SYS_syncfs, EIO)), test::ErrorText(EIO));
}

TEST_F(OrbaCopyTest, CopyFailsWhenTheRenameDoesNotReachTheDisk) {
  ExpectFailedWithoutTrace(Copy(Failing(SYS_fsync, EIO)), "dst: " + test::ErrorText(EIO));
}

TEST_F(OrbaCopyTest, CopyFailsWhenItCannotMakeAFolder) {
  ExpectFailedWithoutTrace(Copy(Failing(SYS_mkdirat, ENOSPC)), test::ErrorText(ENOSPC));
}

TEST_F(OrbaCopyTest, CopyWithoutRenameNoReplaceStillMovesIntoPlace) {
  for (const int error : {EINVAL, ENOSYS}) {
    EXPECT_TRUE(Copy(Failing(SYS_renameat2, error)).Exited(0));
    ExpectWhole(target_);
    fs::remove_all(target_);
  }
}

TEST_F(OrbaCopyTest, CopyFailsWhenItCannotMoveIntoPlace) {
  ExpectFailedWithoutTrace(Copy(Failing(SYS_renameat2, EACCES)), test::ErrorText(EACCES));
}

TEST_F(OrbaCopyTest, CopyRefusesAnExistingTarget) {
  WriteFile(target_ / "old", "old");
  for (const fs::path& target : {target_, target_ / ""}) {
    const ProcessResult result = Copy(source_, target);
    EXPECT_TRUE(result.EndedBy(SIGTERM)) << result;
    EXPECT_THAT(result.err, HasSubstr("already exists"));
  }
  EXPECT_THAT(Names(target_), testing::ElementsAre("old"));
  EXPECT_THAT(Names(parent_), testing::ElementsAre("dst"));
}

TEST_F(OrbaCopyTest, CopyRefusesADanglingLinkAsTarget) {
  fs::create_symlink("nowhere", target_);
  const ProcessResult result = Copy();
  EXPECT_TRUE(result.EndedBy(SIGTERM)) << result;
  EXPECT_THAT(result.err, HasSubstr("already exists"));
  EXPECT_EQ(fs::read_symlink(target_), "nowhere");
}

TEST_F(OrbaCopyTest, CopyRefusesAMissingSource) {
  ExpectFailedWithoutTrace(Copy(folder_.path() / "missing", target_), "missing: " + test::ErrorText(ENOENT));
}

TEST_F(OrbaCopyTest, CopyRefusesAFileOrALinkAsSource) {
  ExpectFailedWithoutTrace(Copy(source_ / "INFO", target_), test::ErrorText(ENOTDIR));
  fs::create_directory_symlink(source_, folder_.path() / "link");
  ExpectFailedWithoutTrace(Copy(folder_.path() / "link", target_), "link");
}

TEST_F(OrbaCopyTest, CopyRefusesAMissingParent) {
  ExpectFailedWithoutTrace(Copy(source_, parent_ / "missing/dst"), "missing/: " + test::ErrorText(ENOENT));
}

TEST_F(OrbaCopyTest, CopyRefusesATargetWithoutAName) {
  for (const fs::path& target : {parent_ / ".", parent_ / "..", fs::path("/")}) {
    ExpectFailedWithoutTrace(Copy(source_, target), "not a name for a file or folder");
  }
}

TEST_F(OrbaCopyTest, CopyRefusesAFolderInsideItself) {
  const ProcessResult result = Copy(source_, source_ / "lib/dst");
  EXPECT_TRUE(result.EndedBy(SIGTERM)) << result;
  EXPECT_THAT(result.err, HasSubstr("cannot copy a folder into itself"));
  EXPECT_THAT(Names(source_ / "lib"), testing::UnorderedElementsAre("codec.so", "codec.so.1", "empty"));
}

TEST_F(OrbaCopyTest, CopyRefusesSpecialFilesAndLeavesNothing) {
  ASSERT_EQ(mkfifo((source_ / "lib/fifo").c_str(), 0600), 0);
  ExpectFailedWithoutTrace(Copy(), "lib/fifo: neither a file, a folder nor a symbolic link");
}

TEST_F(OrbaCopyTest, CopyThatMeetsAFullDiskLeavesNothing) {
  ProcessOptions options;
  options.before_exec = [] {
    FailSystemCall(SYS_linkat, EXDEV);
    const rlimit limit = {100'000, 100'000};
    setrlimit(RLIMIT_FSIZE, &limit);
  };
  ExpectFailedWithoutTrace(Copy(options), "lib/codec.so: " + test::ErrorText(EFBIG));
}

TEST_F(OrbaCopyTest, CopyByAnOrdinaryUserRemovesReadOnlyFoldersWhenItFails) {
  fs::permissions(folder_.path(), fs::perms::all);
  fs::permissions(parent_, fs::perms::all);
  chmod((source_ / "lib").c_str(), 0555);
  WriteFile(source_ / "secret", "not for everybody");
  chmod((source_ / "secret").c_str(), 0);
  ProcessOptions options;
  options.before_exec = [] {
    FailSystemCall(SYS_linkat, EPERM);
    BecomeOrdinaryUser();
  };
  chmod((source_ / "INFO").c_str(), 0644);
  ExpectFailedWithoutTrace(Copy(options), "secret: " + test::ErrorText(EACCES));
}

TEST_F(OrbaCopyTest, CopyOfATreeDeeperThanAnyPathWorks) {
  // 20 folders with names of 250 bytes: longer than PATH_MAX, so it is made and looked at from within.
  const std::string make =
      "set -e; n=$(printf '%0250d' 0); cd \"$1\"; for i in $(seq 20); do mkdir $n; cd -P $n; done; ";
  ASSERT_TRUE(RunProgram({"sh", "-c", make + "echo deep >file", "sh", source_}).Exited(0));
  const ProcessResult result = Copy();
  EXPECT_TRUE(result.Exited(0)) << result;
  const ProcessResult found = RunProgram({"find", target_, "-name", "file", "-size", "5c"});
  EXPECT_EQ(std::count(found.out.begin(), found.out.end(), '\n'), 1);
}

TEST_F(OrbaCopyTest, CopyRefusesATreeOfTooManyFolders) {
  std::string deep = source_;
  for (int i = 0; i < 300; ++i) {
    deep += "/d";
  }
  fs::create_directories(deep);
  ExpectFailedWithoutTrace(Copy(), "deeper than 256 folders");
}

TEST_F(OrbaCopyTest, CopyIsSeenWholeOrNotAtAll) {
  for (int i = 0; i < 300; ++i) {
    WriteFile(source_ / ("file" + std::to_string(i)), "x");
  }
  const size_t whole = Names(source_).size();
  std::atomic<bool> done = false;
  std::atomic<int> seen_absent = 0;
  std::atomic<int> seen_part = 0;
  std::thread reader([&] {
    while (!done) {
      std::error_code error;
      size_t count = 0;
      fs::directory_iterator entries(target_, error);
      if (error) {
        ++seen_absent;
        continue;
      }
      for (; entries != fs::directory_iterator(); entries.increment(error)) {
        ++count;
      }
      seen_part += count == whole ? 0 : 1;
    }
  });
  const ProcessResult result = Copy(Failing(SYS_linkat, EXDEV));
  done = true;
  reader.join();
  EXPECT_TRUE(result.Exited(0)) << result;
  EXPECT_GT(seen_absent, 0);
  EXPECT_EQ(seen_part, 0);
}

TEST_F(OrbaCopyTest, WorksWithRelativeNamesAndTrailingSlashes) {
  ProcessOptions options;
  options.folder = folder_.path();
  const ProcessResult result = RunProgram({ORBA_COPY, "-a", "src", "copy//"}, options);
  EXPECT_TRUE(result.Exited(0)) << result;
  ExpectWhole(folder_.path() / "copy");
}

TEST_F(OrbaCopyTest, BuildsUnderAHiddenNameThatRecoveryKnows) {
  // With the removal failing as well, what was built stays behind as it does after a power cut.
  ProcessOptions options;
  options.before_exec = [] {
    FailSystemCall(SYS_syncfs, EIO);
    FailSystemCall(SYS_unlinkat, EIO);
  };
  EXPECT_TRUE(Copy(options).EndedBy(SIGTERM));
  EXPECT_THAT(Names(parent_), testing::ElementsAre(testing::MatchesRegex("[.]dst[.]partial[.][A-Za-z0-9]{6}")));
  ExpectWhole(parent_ / Names(parent_).at(0));
}

TEST_F(OrbaCopyTest, WrongUsageEndsBySignalToo) {
  const std::vector<std::vector<std::string>> wrong = {{ORBA_COPY},
                                                       {ORBA_COPY, "-a"},
                                                       {ORBA_COPY, "-a", source_},
                                                       {ORBA_COPY, source_, target_},
                                                       {ORBA_COPY, "-r", source_, target_},
                                                       {ORBA_COPY, "-a", "", target_},
                                                       {ORBA_COPY, "-a", source_, ""},
                                                       {ORBA_COPY, "-a", source_, target_, "more"}};
  for (const auto& argv : wrong) {
    const ProcessResult result = RunProgram(argv);
    EXPECT_TRUE(result.EndedBy(SIGTERM)) << result;
    EXPECT_THAT(result.err, StartsWith("Usage: orba-copy -a SRC DST\n"));
  }
  EXPECT_THAT(Names(parent_), IsEmpty());
}

TEST_F(OrbaCopyTest, EndsBySignalThoughTheCallerBlocksAndIgnoresIt) {
  ProcessOptions options;
  options.before_exec = [] {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    static_cast<void>(std::signal(SIGTERM, SIG_IGN));
  };
  ExpectFailedWithoutTrace(Copy(folder_.path() / "missing", target_, options), "missing");
}

TEST_F(OrbaCopyTest, CopyRefusesAFolderThatIsRemovedAlready) {
  const ProcessResult result = RunProgram(
      {"/bin/sh", "-c", "cd \"$1\" && rm -r \"$1\" && exec \"$2\" -a . \"$3\"", "sh", source_, ORBA_COPY, target_});
  EXPECT_TRUE(result.EndedBy(SIGTERM)) << result;
  EXPECT_EQ(result.err, "orba-copy: .: removed while it was copied\n");
  EXPECT_THAT(Names(parent_), IsEmpty());
}

/// Somebody else is at work in the source while it is copied.
class OrbaCopyChangeTest : public OrbaCopyTest, public testing::WithParamInterface<std::function<void(fs::path)>> {
 protected:
  static constexpr int kFolders = 100;

  // One file in each of so many folders, made anew: copying them takes a while.
  void FillSource() const {
    fs::remove_all(source_);
    for (int i = 0; i < kFolders; ++i) {
      WriteFile(source_ / std::to_string(i) / "file", "content");
    }
  }

  // A folder that is in the copy already; empty while there is none.
  std::string CopiedFolder() const {
    std::error_code ignored;
    for (const auto& partial : fs::directory_iterator(parent_)) {
      for (const auto& folder : fs::directory_iterator(partial, ignored)) {
        if (fs::exists(folder.path() / "file", ignored)) {
          return folder.path().filename();
        }
      }
    }
    return "";
  }
};

TEST_P(OrbaCopyChangeTest, IsRefusedWhenItComesBeforeTheEnd) {
  // The change may come too late: then the copy must be whole, and the next try shows the other case.
  constexpr int kTries = 100;
  for (int i = 0; i < kTries; ++i) {
    FillSource();
    std::atomic<bool> ended = false;
    std::thread other([&] {
      std::string folder;
      while (folder.empty() && !ended) {
        folder = CopiedFolder();
      }
      if (!ended) {
        GetParam()(source_ / folder);
      }
    });
    const ProcessResult result = Copy();
    ended = true;
    other.join();
    if (result.EndedBy(SIGTERM)) {
      EXPECT_THAT(Names(parent_), IsEmpty());
      return;
    }
    ASSERT_TRUE(result.Exited(0)) << result;
    ASSERT_EQ(Names(target_).size(), static_cast<std::size_t>(kFolders));
    fs::remove_all(target_);
  }
  FAIL() << "every copy of " << kTries << " was done before the change";
}

INSTANTIATE_TEST_SUITE_P(Changes, OrbaCopyChangeTest,
                         testing::Values([](const fs::path& folder) { fs::remove(folder / "file"); },
                                         [](const fs::path& folder) { WriteFile(folder / "file", "longer content"); },
                                         [](const fs::path& folder) { WriteFile(folder / "more", "content"); },
                                         [](const fs::path& folder) { fs::remove_all(folder.parent_path()); }));

TEST_F(OrbaCopyTest, HelpAndVersionSucceed) {
  const ProcessResult help = RunProgram({ORBA_COPY, "--help"});
  EXPECT_TRUE(help.Exited(0)) << help;
  EXPECT_THAT(help.out, StartsWith("Usage: orba-copy -a SRC DST\n"));
  const ProcessResult version = RunProgram({ORBA_COPY, "--version"});
  EXPECT_TRUE(version.Exited(0)) << version;
  EXPECT_THAT(version.out, testing::MatchesRegex("orba-copy [0-9.]+\n"));
}

}  // namespace
}  // namespace orbamira::test
