#include "tools/orba-plugins/failure.h"

#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "platform/posix/files.h"

namespace orbamira::plugins {

bool PrintError(std::string_view text) {
  constexpr int kPatience = 1000;           // milliseconds
  constexpr std::size_t kPiece = PIPE_BUF;  // a pipe that is ready takes this much at once
  while (!text.empty()) {
    pollfd ready{STDERR_FILENO, POLLOUT, 0};
    if (poll(&ready, 1, kPatience) != 1) {
      return false;
    }
    const ssize_t written = write(STDERR_FILENO, text.data(), std::min(text.size(), kPiece));
    if (written < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
  }
  return true;
}

void Report(const std::string& failure) {
  const std::string line = Printable(failure);
  PrintError(std::string(program_invocation_short_name) + ": " + line + "\n");
  syslog(LOG_LOCAL1 | LOG_ERR, "%s", line.c_str());
}

}  // namespace orbamira::plugins
