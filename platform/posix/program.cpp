#include "platform/posix/program.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/posix/errors.h"

namespace orbamira {

void OpenStandardStreams() {
  int fd = 0;
  while (fd <= STDERR_FILENO) {
    fd = open("/dev/null", O_RDWR);
    if (fd < 0) {
      ThrowErrno("cannot open /dev/null");
    }
  }
  close(fd);
}

void IgnoreOutputSignals() {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
}

int PrintAll(const std::string& text) {
  return std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

std::optional<int> AnswerHelp(int argc, char** argv, const std::string& usage, const std::string& version) {
  const std::string_view argument = argc == 2 ? argv[1] : "";
  if (argument == "--help") {
    return PrintAll(usage);
  }
  if (argument == "--version") {
    return PrintAll(version + "\n");
  }
  return std::nullopt;
}

}  // namespace orbamira
