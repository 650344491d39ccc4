#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/program.h"
#include "platform/printable.h"
#include "tools/orba-copy/copy_folder.h"

namespace {

using orbamira::Printable;

constexpr const char* kUsage =
    "Usage: orba-copy -a SRC DST\n"
    "Copy the folder SRC to the new folder DST, whole and on disk, or not at all.\n"
    "\n"
    "  -a         keep modes, times, symbolic links and, as root, owners; files are\n"
    "             linked where SRC and DST are on one file system\n"
    "  --help     print this text\n"
    "  --version  print the version\n"
    "\n"
    "DST must not exist. A failure removes what was built and ends the program by\n"
    "SIGTERM, never with an exit status.\n";

/// Ends the program in the one way that its caller cannot take for success. The updater checks only whether the result
/// of a copy is negative, which means that a signal ended the program. An exit status of 1 counts as done: the updater
/// would go on and delete the backup of the old pack.
[[noreturn]] void EndAsFailed() {
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  static_cast<void>(std::signal(SIGTERM, SIG_DFL));
  sigprocmask(SIG_UNBLOCK, &term, nullptr);
  static_cast<void>(std::raise(SIGTERM));
  std::abort();  // SIGTERM does not end the first process of a container
}

}  // namespace

int main(int argc, char** argv) {
  orbamira::IgnoreOutputSignals();
  if (const std::optional<int> status = orbamira::AnswerHelp(argc, argv, kUsage, "orba-copy " ORBAMIRA_VERSION)) {
    return *status;
  }
  const std::vector<std::string_view> arguments(argv + 1, argv + argc);
  if (arguments.size() != 3 || arguments[0] != "-a" || arguments[1].empty() || arguments[2].empty()) {
    static_cast<void>(std::fputs(kUsage, stderr));
    EndAsFailed();
  }
  try {
    orbamira::tools::CopyFolder(std::string(arguments[1]), std::string(arguments[2]));
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "orba-copy: %s\n", Printable(error.what()).c_str()));
    EndAsFailed();
  }
  return EXIT_SUCCESS;
}
