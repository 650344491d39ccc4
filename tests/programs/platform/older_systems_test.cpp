#include "platform/posix/older_systems.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "tests/support/forked.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

using test::FailSystemCall;
using test::Forked;

constexpr int kYes = 0;
constexpr int kNo = 1;

/// What the body answers in a process where the call fails with the error.
int Without(int call, int error, const std::function<bool()>& body) {
  Forked process([&] {
    FailSystemCall(call, error);
    return body() ? kYes : kNo;
  });
  return process.Wait();
}

class OlderSystemsUnitTest : public testing::Test {
 protected:
  [[nodiscard]] bool Rename() const { return RenameToFree(AT_FDCWD, folder_.File("from"), folder_.File("to")); }

  test::TempDir folder_;
};

using RenameToFreeTest = OlderSystemsUnitTest;
using SetFolderModeTest = OlderSystemsUnitTest;

TEST_F(RenameToFreeTest, RenamesAFileAndAFolder) {
  for (const int error : {EINVAL, ENOSYS, EOPNOTSUPP}) {
    test::WriteFile(folder_.File("from"), "text");
    EXPECT_EQ(Without(SYS_renameat2, error, [&] { return Rename(); }), kYes) << error;
    EXPECT_EQ(test::ReadFile(folder_.File("to")), "text");
    fs::remove(folder_.File("to"));

    test::WriteFile(folder_.path() / "from/inner", "text");
    EXPECT_EQ(Without(SYS_renameat2, error, [&] { return Rename(); }), kYes) << error;
    EXPECT_EQ(test::ReadFile(folder_.path() / "to/inner"), "text");
    fs::remove_all(folder_.File("to"));
  }
}

TEST_F(RenameToFreeTest, ReplacesNothing) {
  test::WriteFile(folder_.File("from"), "new");
  const auto is_refused = [&] { return !Rename() && errno == EEXIST; };
  test::WriteFile(folder_.File("to"), "old");
  EXPECT_TRUE(is_refused());
  EXPECT_EQ(Without(SYS_renameat2, EINVAL, is_refused), kYes);
  EXPECT_EQ(test::ReadFile(folder_.File("to")), "old");

  fs::remove(folder_.File("to"));
  fs::create_symlink("nowhere", folder_.File("to"));
  EXPECT_TRUE(is_refused());
  EXPECT_EQ(Without(SYS_renameat2, EINVAL, is_refused), kYes);
  EXPECT_TRUE(fs::is_symlink(folder_.File("to")));
}

TEST_F(RenameToFreeTest, TakesAnotherErrorForAFailure) {
  test::WriteFile(folder_.File("from"), "text");
  EXPECT_EQ(Without(SYS_renameat2, EACCES, [&] { return !Rename() && errno == EACCES; }), kYes);
  EXPECT_TRUE(fs::exists(folder_.File("from")));
}

TEST_F(SetFolderModeTest, NeverFollowsALinkWithOrWithoutProc) {
  fs::create_directory(folder_.File("folder"));
  fs::permissions(folder_.File("folder"), fs::perms::owner_all);
  fs::create_directory_symlink("folder", folder_.File("link"));
  EXPECT_FALSE(SetFolderMode(AT_FDCWD, folder_.File("link"), 0755));
  Forked inside([&] {
    if (!test::EnterRoot(folder_.path())) {
      return test::kMayNotUnshare;
    }
    return SetFolderMode(AT_FDCWD, "/link", 0755) ? kNo : kYes;
  });
  EXPECT_NE(inside.Wait(), kNo);
  EXPECT_EQ(fs::status(folder_.File("folder")).permissions(), fs::perms::owner_all);
}

TEST_F(SetFolderModeTest, FailsWhereThereIsNoFolder) {
  EXPECT_FALSE(SetFolderMode(AT_FDCWD, folder_.File("missing"), 0755));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(SetFolderModeTest, OpensAFolderThatIsClosedToItsOwnerWithoutProc) {
  fs::create_directory(folder_.File("folder"));
  fs::permissions(folder_.File("folder"), fs::perms::none);
  Forked inside([&] {
    if (!test::EnterRoot(folder_.path())) {
      return test::kMayNotUnshare;
    }
    return SetFolderMode(AT_FDCWD, "/folder", S_IRWXU) ? kYes : kNo;
  });
  if (inside.Wait() == test::kMayNotUnshare) {
    GTEST_SKIP() << "may not change the root";
  }
  EXPECT_EQ(inside.Wait(), kYes);
  EXPECT_EQ(fs::status(folder_.File("folder")).permissions(), fs::perms::owner_all);
}

bool IsUnnamedFile(const UniqueFd& file) {
  struct stat status {};
  return file.valid() && (fcntl(file.get(), F_GETFD) & FD_CLOEXEC) != 0 && fstat(file.get(), &status) == 0 &&
         status.st_nlink == 0 && write(file.get(), "x", 1) == 1;
}

TEST(OpenUnnamedFileTest, GivesAFileThatNoFolderLists) {
  EXPECT_TRUE(IsUnnamedFile(OpenUnnamedFile("test")));
  for (const int error : {EINVAL, ENOSYS}) {
    EXPECT_EQ(Without(SYS_memfd_create, error, [] { return IsUnnamedFile(OpenUnnamedFile("test")); }), kYes) << error;
  }
}

bool ClosesAll() {
  constexpr int kFirst = 100;
  dup2(STDERR_FILENO, kFirst - 1);
  dup2(STDERR_FILENO, kFirst);
  dup2(STDERR_FILENO, kFirst + 100);
  CloseFrom(kFirst);
  return fcntl(kFirst - 1, F_GETFD) >= 0 && fcntl(kFirst, F_GETFD) < 0 && fcntl(kFirst + 100, F_GETFD) < 0;
}

TEST(CloseFromTest, ClosesEveryDescriptorFromTheFirstOn) {
  for (const int error : {EINVAL, ENOSYS}) {
    EXPECT_EQ(Without(SYS_close_range, error, ClosesAll), kYes) << error;
  }
}

TEST(CloseFromTest, NeedsNoProc) {
  const test::TempDir root;
  Forked inside([&] {
    if (!test::EnterRoot(root.path())) {
      return test::kMayNotUnshare;
    }
    FailSystemCall(SYS_close_range, ENOSYS);
    return ClosesAll() ? kYes : kNo;
  });
  const int result = inside.Wait();
  if (result == test::kMayNotUnshare) {
    GTEST_SKIP() << "may not change the root";
  }
  EXPECT_EQ(result, kYes);
}

}  // namespace
}  // namespace orbamira
