#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

// The library composes its paths when it is loaded, so the root must be set before the process begins: the first start
// makes the root, runs the same program again under it, and clears up.
namespace {

int RunUnderRoot(char** argv) {
  std::string root = (std::filesystem::temp_directory_path() / "orbamira-test-XXXXXX").string();
  if (mkdtemp(root.data()) == nullptr || setenv("ORBAMIRA_ROOT", root.c_str(), 1) != 0) {
    std::perror(root.c_str());
    return EXIT_FAILURE;
  }
  int status = -1;
  pid_t child = 0;
  if (posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, argv, environ) == 0) {
    waitpid(child, &status, 0);
  }
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
  return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv("ORBAMIRA_ROOT") == nullptr) {
    return RunUnderRoot(argv);
  }
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
