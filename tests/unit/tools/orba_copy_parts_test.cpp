#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "platform/posix/unique_fd.h"
#include "tests/support/error_text.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"
#include "tools/orba-copy/copy_folder.h"
#include "tools/orba-copy/tree_copier.h"

namespace {

/// Who we are, and what giving a file away ends with, while a test says so.
struct Pretence {
  uid_t user;
  int error;
};
std::optional<Pretence> pretended;
std::vector<std::string> given_away;

int Give(const std::string& name, uid_t user, gid_t group) {
  given_away.push_back(name + " to " + std::to_string(user) + ":" + std::to_string(group));
  errno = pretended->error;
  return errno == 0 ? 0 : -1;
}

}  // namespace

// In place of the C library's: only root may give files away, and tests run as anybody.
extern "C" {

[[gnu::visibility("default")]] uid_t geteuid() noexcept {
  return pretended ? pretended->user : static_cast<uid_t>(syscall(SYS_geteuid));
}

[[gnu::visibility("default")]] int fchown(int fd, uid_t user, gid_t group) noexcept {
  if (!pretended) {
    return static_cast<int>(syscall(SYS_fchown, fd, user, group));
  }
  const std::string name = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).filename();
  return Give(name.starts_with(".") ? "the copy" : name, user, group);
}

[[gnu::visibility("default")]] int fchownat(int folder, const char* name, uid_t user, gid_t group, int flags) noexcept {
  if (!pretended) {
    return static_cast<int>(syscall(SYS_fchownat, folder, name, user, group, flags));
  }
  return Give(flags == AT_SYMLINK_NOFOLLOW ? name : std::string("what is behind ") + name, user, group);
}

}  // extern "C"

namespace orbamira::tools {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

class CopyPartsTest : public testing::Test {
 protected:
  CopyPartsTest() {
    given_away.clear();
    fs::create_directory(source_);
    fs::create_directory(target_);
  }
  ~CopyPartsTest() override { pretended.reset(); }

  static struct stat Status(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
  }

  static void SetTime(const fs::path& path, const timespec& modified) {
    const std::array times = {modified, modified};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW), 0);
  }

  /// What copying the folder throws; empty when it throws nothing.
  std::string ErrorOfCopy() const {
    try {
      CopyFolder(source_, target_ / "copy");
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }

  /// The same where it may have so many files open at a time.
  std::string ErrorOfCopyWithDescriptors(rlim_t count) const {
    rlimit before = {};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next = dup(STDIN_FILENO);
    close(next);
    const rlimit enough = {static_cast<rlim_t>(next) + count, before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &enough), 0);
    std::string error = ErrorOfCopy();
    setrlimit(RLIMIT_NOFILE, &before);
    return error;
  }

  test::TempDir dir_;
  fs::path source_ = dir_.path() / "source";
  fs::path target_ = dir_.path() / "target";
};

TEST_F(CopyPartsTest, A256thFolderIsTheDeepest) {
  fs::path deepest = source_;
  for (int i = 1; i < 256; ++i) {
    deepest /= "d";
  }
  fs::create_directories(deepest);
  EXPECT_EQ(ErrorOfCopy(), "");
  fs::create_directory(deepest / "e");
  fs::remove_all(target_ / "copy");
  EXPECT_EQ(ErrorOfCopy(), (deepest / "e").string() + ": deeper than 256 folders");
}

TEST_F(CopyPartsTest, ByRootTheCopyHasTheOwnersOfTheOriginal) {
  test::WriteFile(source_ / "folder/file", "text");
  fs::create_symlink("file", source_ / "folder/link");
  pretended = {.user = 0, .error = 0};
  test::WithFailingCall(SYS_linkat, EXDEV, [&] { EXPECT_EQ(ErrorOfCopy(), ""); });
  const struct stat original = Status(source_);
  const std::string owner = " to " + std::to_string(original.st_uid) + ":" + std::to_string(original.st_gid);
  EXPECT_THAT(given_away, ElementsAre("file" + owner, "link" + owner, "folder" + owner, "the copy" + owner));
}

TEST_F(CopyPartsTest, ByOthersNothingIsGivenAway) {
  test::WriteFile(source_ / "file", "text");
  fs::create_symlink("file", source_ / "link");
  pretended = {.user = 1000, .error = EPERM};
  test::WithFailingCall(SYS_linkat, EXDEV, [&] { EXPECT_EQ(ErrorOfCopy(), ""); });
  EXPECT_THAT(given_away, IsEmpty());
}

TEST_F(CopyPartsTest, WhatCannotGetItsOwnerIsNotCopied) {
  fs::create_symlink("nowhere", source_ / "link");
  pretended = {.user = 0, .error = EPERM};
  EXPECT_EQ(ErrorOfCopy(), (source_ / "link").string() + ": " + test::ErrorText(EPERM));
  fs::remove(source_ / "link");
  EXPECT_EQ(ErrorOfCopy(), source_.string() + ": " + test::ErrorText(EPERM));
  EXPECT_TRUE(fs::is_empty(target_));
}

TEST_F(CopyPartsTest, WhatCannotGetItsModeIsNotCopied) {
  std::string error;
  test::WithFailingCall(SYS_fchmod, EPERM, [&] { error = ErrorOfCopy(); });
  EXPECT_EQ(error, source_.string() + ": " + test::ErrorText(EPERM));
  EXPECT_TRUE(fs::is_empty(target_));
}

TEST_F(CopyPartsTest, ALinkThatCannotBeMadeIsToldWithItsReason) {
  fs::create_symlink("nowhere", source_ / "link");
  std::string error;
  test::WithFailingCall(SYS_symlinkat, ENOSPC, [&] { error = ErrorOfCopy(); });
  EXPECT_EQ(error, (source_ / "link").string() + ": " + test::ErrorText(ENOSPC));
}

TEST_F(CopyPartsTest, AFileOrFolderThatDoesNotReachTheDiskIsNamed) {
  fs::create_directory(source_ / "folder");
  const std::string copy = target_ / "copy";
  std::string error;
  const auto copy_without_syncs = [&] {
    test::WithFailingCall(SYS_syncfs, ENOSYS, [&] {  //
      test::WithFailingCall(SYS_fsync, EIO, [&] { error = ErrorOfCopy(); });
    });
  };
  copy_without_syncs();
  EXPECT_EQ(error, copy + "/folder: " + test::ErrorText(EIO));
  test::WriteFile(source_ / "folder/file", "text");
  copy_without_syncs();
  EXPECT_EQ(error, copy + "/folder/file: " + test::ErrorText(EIO));
  EXPECT_TRUE(fs::is_empty(target_));
}

TEST_F(CopyPartsTest, ATargetWithAnImpossibleNameIsRefused) {
  const std::string target = target_ / std::string(256, 'n');
  try {
    CopyFolder(source_, target);
    FAIL() << "it was copied";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.what(), target + ": " + test::ErrorText(ENAMETOOLONG));
  }
}

TEST_F(CopyPartsTest, WhereNoFolderCanBeMadeNothingIsCopied) {
  std::string error;
  const auto copy = [&] { error = ErrorOfCopy(); };
#ifdef SYS_mkdir
  test::WithFailingCall(SYS_mkdir, EDQUOT, [&] { test::WithFailingCall(SYS_mkdirat, EDQUOT, copy); });
#else
  test::WithFailingCall(SYS_mkdirat, EDQUOT, copy);
#endif
  EXPECT_THAT(error,
              MatchesRegex(target_.string() + "/+\\.copy\\.partial\\.[A-Za-z0-9]{6}: " + test::ErrorText(EDQUOT)));
}

TEST_F(CopyPartsTest, AFolderThatCannotBeOpenedOnceItIsMadeGoesAgain) {
  constexpr rlim_t kSourceAndParent = 2;
  EXPECT_THAT(ErrorOfCopyWithDescriptors(kSourceAndParent),
              MatchesRegex(target_.string() + "/+\\.copy\\.partial\\.[A-Za-z0-9]{6}: " + test::ErrorText(EMFILE)));
  EXPECT_TRUE(fs::is_empty(target_));
}

TEST_F(CopyPartsTest, AFileThatCannotBeMadeIsToldWithItsReason) {
  constexpr rlim_t kBothFoldersParentAndOriginal = 4;
  test::WriteFile(source_ / "file", "text");
  std::string error;
  test::WithFailingCall(SYS_linkat, EXDEV, [&] { error = ErrorOfCopyWithDescriptors(kBothFoldersParentAndOriginal); });
  EXPECT_EQ(error, (source_ / "file").string() + ": " + test::ErrorText(EMFILE));
}

TEST_F(CopyPartsTest, ThatTheNameIsNotOnDiskIsToldOnAKernelWithoutTheFlagToo) {
  std::string error;
  test::WithFailingCall(SYS_renameat2, ENOSYS, [&] {  //
    test::WithFailingCall(SYS_fsync, EIO, [&] { error = ErrorOfCopy(); });
  });
  EXPECT_EQ(error, (target_ / "copy").string() + ": " + test::ErrorText(EIO));
  EXPECT_TRUE(fs::is_empty(target_));
}

/// A tree that was copied, and is then changed in one way.
class UnchangedSourceTest : public CopyPartsTest {
 protected:
  UnchangedSourceTest() {
    for (const char* name : {"c", "b", "a/inner"}) {
      test::WriteFile(source_ / name, name);
    }
    from_ = OpenFile(source_, O_RDONLY | O_DIRECTORY);
    to_ = OpenFile(target_, O_RDONLY | O_DIRECTORY);
    copier_.emplace(to_.get());
    copier_->Copy(from_.get(), "source");
    before_ = Status(source_);
  }

  /// What CheckUnchanged() throws once the times of the tree's top are set back.
  std::string ErrorOfCheck() {
    SetTime(source_, before_.st_mtim);
    try {
      copier_->CheckUnchanged(from_.get(), "source");
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }

  UniqueFd from_;
  UniqueFd to_;
  std::optional<TreeCopier> copier_;
  struct stat before_ = {};
};

TEST_F(UnchangedSourceTest, IsWhatWasCopied) { EXPECT_EQ(ErrorOfCheck(), ""); }

TEST_F(UnchangedSourceTest, HasNoOtherFileOfTheSameNameSizeAndTime) {
  const timespec modified = Status(source_ / "b").st_mtim;
  test::WriteFile(dir_.path() / "other", "b");
  SetTime(dir_.path() / "other", modified);
  fs::rename(dir_.path() / "other", source_ / "b");
  EXPECT_EQ(ErrorOfCheck(), "source: changed while it was copied");
}

TEST_F(UnchangedSourceTest, HasNoOtherSize) {
  const timespec modified = Status(source_ / "b").st_mtim;
  fs::resize_file(source_ / "b", 2);
  SetTime(source_ / "b", modified);
  EXPECT_EQ(ErrorOfCheck(), "source: changed while it was copied");
}

TEST_F(UnchangedSourceTest, HasNoOtherTime) {
  const timespec modified = Status(source_ / "b").st_mtim;
  SetTime(source_ / "b", {.tv_sec = modified.tv_sec + 1, .tv_nsec = modified.tv_nsec});
  EXPECT_EQ(ErrorOfCheck(), "source: changed while it was copied");
  SetTime(source_ / "b", {.tv_sec = modified.tv_sec, .tv_nsec = (modified.tv_nsec + 1) % 1'000'000'000});
  EXPECT_EQ(ErrorOfCheck(), "source: changed while it was copied");
  SetTime(source_ / "b", modified);
  EXPECT_EQ(ErrorOfCheck(), "");
}

}  // namespace
}  // namespace orbamira::tools
