#include "tests/fuzz/fuzzing.h"

#include <spawn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace orbamira::fuzz {
namespace {

// Set for the program that runs in a root of its own: one that the user has set would be emptied.
constexpr const char* kIsUnderRoot = "ORBAMIRA_FUZZER_HAS_ROOT";

// Every input writes files: in memory they cost nothing to sync.
std::filesystem::path ScratchFolder() {
  const char* chosen = std::getenv("TMPDIR");
  if (chosen != nullptr) {
    return chosen;
  }
  return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
}

// The library composes its paths when it is loaded, so the root must be set before the process begins: the first start
// makes the root, runs the same program again under it, and clears up. Beside the root there is nothing, so that what
// gets out is seen.
[[noreturn]] void RunUnderRoot(char** argv) {
  std::string folder = (ScratchFolder() / "orbamira-fuzz-XXXXXX").string();
  const std::string inner = "/root";
  if (mkdtemp(folder.data()) == nullptr || mkdir((folder + inner).c_str(), S_IRWXU) != 0 ||
      setenv("ORBAMIRA_ROOT", (folder + inner).c_str(), 1) != 0 || setenv(kIsUnderRoot, "1", 1) != 0) {
    std::perror(folder.c_str());
    _exit(EXIT_FAILURE);
  }
  std::error_code ignored;
  std::filesystem::remove_all(kEscape, ignored);  // of an earlier finding
  int status = -1;
  pid_t child = 0;
  if (posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, argv, environ) == 0) {
    static_cast<void>(std::signal(SIGINT, SIG_IGN));  // the child gets it too, and ends after its statistics
    waitpid(child, &status, 0);
  }
  std::filesystem::remove_all(folder, ignored);
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE);
}

// Reads what the message is made of, as the system log would, so that a text that is gone is found. With
// ORBAMIRA_FUZZ_LOG in the environment it is printed, for whoever looks into a finding.
void Swallow(const char* format, va_list arguments) {
  static const bool is_shown = std::getenv("ORBAMIRA_FUZZ_LOG") != nullptr;
  if (is_shown) {
    static_cast<void>(std::vfprintf(stdout, format, arguments));
    static_cast<void>(std::putchar('\n'));
  } else {
    static_cast<void>(std::vsnprintf(nullptr, 0, format, arguments));
  }
}

}  // namespace

void Require(bool holds, const char* rule) {
  if (!holds) {
    static_cast<void>(std::fprintf(stderr, "broken rule: %s\n", rule));
    std::abort();
  }
}

std::string Text(const uint8_t* data, std::size_t size) { return {reinterpret_cast<const char*>(data), size}; }

std::string TakeLine(std::string& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  std::string line = text.substr(0, end);
  text.erase(0, std::min(end + 1, text.size()));
  return line;
}

std::string LittleEndian(uint64_t number, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i, number >>= 8) {
    text.push_back(static_cast<char>(number & 0xff));
  }
  return text;
}

}  // namespace orbamira::fuzz

extern "C" {

int LLVMFuzzerInitialize(int* argc, char*** argv);

int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
  if (std::getenv(orbamira::fuzz::kIsUnderRoot) == nullptr) {
    orbamira::fuzz::RunUnderRoot(*argv);
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  return 0;
}

void syslog(int /*priority*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  orbamira::fuzz::Swallow(format, arguments);
  va_end(arguments);
}

// What a build with _FORTIFY_SOURCE calls in place of syslog.
void __syslog_chk(int /*priority*/, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  orbamira::fuzz::Swallow(format, arguments);
  va_end(arguments);
}

}  // extern "C"
