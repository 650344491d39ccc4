#include "updater/update_lock.h"

#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <optional>
#include <string>

#include "platform/constants.h"
#include "tests/support/forked.h"
#include "tests/support/test_root.h"

namespace orbamira::updater {
namespace {

using testing::HasSubstr;

TEST(UpdateLockOfAProcessTest, TheNameOfAHolderThatDiedHoldsNothing) {
  test::Forked holder([] {
    const UpdateLock lock;
    return raise(SIGKILL);
  });
  holder.Wait();
  ASSERT_NE(test::ReadFile(path::kPackctlLock), "");
  const UpdateLock lock;
  EXPECT_THAT(test::ReadFile(path::kPackctlLock), HasSubstr("(pid " + std::to_string(getpid()) + ")"));
}

TEST(UpdateLockOfAProcessTest, IsNotHandedToChildPrograms) {
  std::optional<UpdateLock> lock(std::in_place);
  pid_t child = 0;
  std::array<char*, 3> arguments = {const_cast<char*>("sleep"), const_cast<char*>("60"), nullptr};  // NOLINT
  ASSERT_EQ(posix_spawnp(&child, "sleep", nullptr, nullptr, arguments.data(), environ), 0);
  lock.reset();
  EXPECT_NO_THROW(const UpdateLock second);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

}  // namespace
}  // namespace orbamira::updater
