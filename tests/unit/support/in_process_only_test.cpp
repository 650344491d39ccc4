#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <thread>

namespace orbamira::test {
namespace {

// What tests/unit is for; a test that needs another process belongs to tests/programs.
TEST(InProcessOnlyTest, AUnitTestCannotFork) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(EXIT_SUCCESS);
  }
  EXPECT_EQ(child, -1);
  EXPECT_EQ(errno, EPERM);
  waitpid(child, nullptr, 0);
}

TEST(InProcessOnlyTest, AUnitTestCannotStartAProgram) {
  char* const arguments[] = {const_cast<char*>("true"), nullptr};  // NOLINT: posix_spawn does not write to it
  pid_t child = -1;
  EXPECT_EQ(posix_spawn(&child, "/bin/true", nullptr, nullptr, arguments, environ), EPERM);
  EXPECT_EQ(execve("/bin/true", arguments, environ), -1);
  EXPECT_EQ(errno, EPERM);
}

TEST(InProcessOnlyTest, AUnitTestMayHaveThreads) {
  bool ran = false;
  std::thread([&] { ran = true; }).join();
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace orbamira::test
