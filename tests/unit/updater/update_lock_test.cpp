#include "updater/update_lock.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "platform/constants.h"
#include "tests/support/error_text.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;

using testing::StrEq;
using testing::ThrowsMessage;

class UpdateLockTest : public testing::Test {
 protected:
  UpdateLockTest() { fs::remove_all(path_.parent_path()); }

  static std::string OwnName() {
    return std::string(program_invocation_short_name) + " (pid " + std::to_string(getpid()) + ")";
  }

  const fs::path path_ = path::kPackctlLock;
};

TEST_F(UpdateLockTest, MakesItsFileAndFolder) {
  const UpdateLock lock;
  struct stat about {};
  ASSERT_EQ(stat(path_.c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 07777, 0600U);
}

TEST_F(UpdateLockTest, WritesTheHolderIntoTheFile) {
  test::WriteFile(path_, "a program from the past with a long name (pid 1234567890)\n");
  const UpdateLock lock;
  EXPECT_EQ(test::ReadFile(path_), OwnName() + "\n");
}

TEST_F(UpdateLockTest, RefusesASecondHolderAtOnceAndNamesTheFirst) {
  const UpdateLock first;
  EXPECT_THAT([] { const UpdateLock second; }, ThrowsMessage<Busy>(StrEq("another program is at work: " + OwnName())));
}

TEST_F(UpdateLockTest, ReportsALockThatTheSystemDoesNotGive) {
  test::WithFailingCall(SYS_flock, ENOLCK, [&] {
    EXPECT_THAT([] { const UpdateLock lock; },
                ThrowsMessage<std::system_error>(
                    StrEq("cannot take the lock " + path_.string() + ": " + test::ErrorText(ENOLCK))));
  });
}

TEST_F(UpdateLockTest, NamesNobodyWhenTheFileDoesNot) {
  const UpdateLock first;
  test::WriteFile(path_, "");
  EXPECT_THAT([] { const UpdateLock second; }, ThrowsMessage<Busy>(StrEq("another program is at work")));
}

TEST_F(UpdateLockTest, ShowsAHolderOnOneLine) {
  const UpdateLock first;
  test::WriteFile(path_, "a\x1b[2Jb\nsecond line\n");
  EXPECT_THAT([] { const UpdateLock second; }, ThrowsMessage<Busy>(StrEq("another program is at work: a\\033[2Jb")));
}

TEST_F(UpdateLockTest, ShowsOnlyTheStartOfALongName) {
  const UpdateLock first;
  test::WriteFile(path_, std::string(300, 'x'));
  EXPECT_THAT([] { const UpdateLock second; },
              ThrowsMessage<Busy>(StrEq("another program is at work: " + std::string(256, 'x'))));
}

TEST_F(UpdateLockTest, IsFreeAgainAfterItsHolder) {
  { const UpdateLock first; }
  EXPECT_NO_THROW(const UpdateLock second);
}

TEST_F(UpdateLockTest, SaysWhyItCannotBeHad) {
  const auto expect_error = [](const std::string& text) {
    EXPECT_THAT([] { const UpdateLock lock; }, ThrowsMessage<std::system_error>(StrEq(text)));
  };
  fs::create_directories(path_);
  expect_error("cannot open the lock " + path_.string() + ": " + test::ErrorText(EISDIR));
  fs::remove_all(path_.parent_path());
  test::WriteFile(path_.parent_path(), "");
  expect_error("cannot make the folder " + path_.parent_path().string() + ": " + test::ErrorText(ENOTDIR));
  fs::remove(path_.parent_path());
}

TEST_F(UpdateLockTest, DoesNotFollowALinkInItsPlace) {
  const fs::path victim = test::Root() / "victim";
  test::WriteFile(victim, "text");
  fs::create_directories(path_.parent_path());
  fs::create_symlink(victim, path_);
  EXPECT_THROW(const UpdateLock lock, std::system_error);
  EXPECT_EQ(test::ReadFile(victim), "text");
}

}  // namespace
}  // namespace orbamira::updater
