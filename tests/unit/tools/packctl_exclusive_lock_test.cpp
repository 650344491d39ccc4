#include <fcntl.h>
#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <optional>
#include <system_error>

#include "tests/support/test_root.h"
#include "tools/packctl/commands/exclusive_lock.h"

namespace orbamira::packctl {
namespace {

using testing::StrEq;
using testing::ThrowsMessage;

class ExclusiveLockTest : public testing::Test {
 protected:
  test::TempDir folder_;
  std::string path_ = folder_.File("deep/lock/packctl.lock");
};

TEST_F(ExclusiveLockTest, MakesItsFileAndFolder) {
  const ExclusiveLock lock(path_);
  struct stat about {};
  ASSERT_EQ(stat(path_.c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 07777, 0600U);
}

TEST_F(ExclusiveLockTest, WritesTheHolderIntoTheFile) {
  test::WriteFile(path_, "1234567890 from a longer past\n");
  const ExclusiveLock lock(path_);
  EXPECT_EQ(test::ReadFile(path_), std::to_string(getpid()) + "\n");
}

TEST_F(ExclusiveLockTest, RefusesASecondHolderAtOnceAndNamesTheFirst) {
  const ExclusiveLock first(path_);
  EXPECT_THAT([this] { const ExclusiveLock second(path_); },
              ThrowsMessage<Busy>(StrEq("another packctl is at work (pid " + std::to_string(getpid()) + ")")));
}

TEST_F(ExclusiveLockTest, NamesNobodyWhenTheFileDoesNot) {
  const ExclusiveLock first(path_);
  test::WriteFile(path_, "garbage");
  EXPECT_THAT([this] { const ExclusiveLock second(path_); }, ThrowsMessage<Busy>(StrEq("another packctl is at work")));
}

TEST_F(ExclusiveLockTest, IsFreeAgainAfterItsHolder) {
  { const ExclusiveLock first(path_); }
  EXPECT_NO_THROW(const ExclusiveLock second(path_));
}

TEST_F(ExclusiveLockTest, IsNotHandedToChildPrograms) {
  std::optional<ExclusiveLock> lock(path_);
  pid_t child = 0;
  std::array<char*, 3> arguments = {const_cast<char*>("sleep"), const_cast<char*>("60"), nullptr};  // NOLINT
  ASSERT_EQ(posix_spawnp(&child, "sleep", nullptr, nullptr, arguments.data(), environ), 0);
  lock.reset();
  EXPECT_NO_THROW(const ExclusiveLock second(path_));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST_F(ExclusiveLockTest, SaysWhyItCannotBeHad) {
  test::WriteFile(folder_.File("file"), "");
  EXPECT_THROW(const ExclusiveLock lock(folder_.File("file/packctl.lock")), std::system_error);
  EXPECT_THROW(const ExclusiveLock lock(folder_.path().string()), std::system_error);
}

TEST_F(ExclusiveLockTest, DoesNotFollowALinkInItsPlace) {
  test::WriteFile(folder_.File("victim"), "text");
  std::filesystem::create_symlink(folder_.File("victim"), folder_.File("link.lock"));
  EXPECT_THROW(const ExclusiveLock lock(folder_.File("link.lock")), std::system_error);
  EXPECT_EQ(test::ReadFile(folder_.File("victim")), "text");
}

}  // namespace
}  // namespace orbamira::packctl
