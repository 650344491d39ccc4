#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

// Before every other initializer of the program: the library composes its paths in one of them, so the root must be
// there by then. A copy of the process goes on and runs the tests; this one clears up, however they end.
constexpr int kFirst = 101;

[[gnu::constructor(kFirst)]] void RunUnderRoot() {
  if (std::getenv("ORBAMIRA_ROOT") != nullptr) {
    return;
  }
  std::string root = (std::filesystem::temp_directory_path() / "orbamira-test-XXXXXX").string();
  if (mkdtemp(root.data()) == nullptr || setenv("ORBAMIRA_ROOT", root.c_str(), 1) != 0) {
    std::perror(root.c_str());
    _exit(EXIT_FAILURE);
  }
  const pid_t tests = fork();
  if (tests == 0) {
    return;
  }
  int status = -1;
  waitpid(tests, &status, 0);
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE);
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
