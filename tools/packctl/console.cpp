#include "tools/packctl/console.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <system_error>

namespace orbamira::packctl {
namespace {

constexpr const char* kName = "packctl";

int CheckedFd(int fd, const char* what) {
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
  return fd;
}

// Above the standard descriptors, so that a closed one is not taken for something else.
int KeepAside(int fd) { return CheckedFd(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "keep an output aside"); }

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
  }
  return true;
}

}  // namespace

Console::Console()
    : output_(KeepAside(STDOUT_FILENO)),
      error_(KeepAside(STDERR_FILENO)),
      held_(CheckedFd(memfd_create(kName, MFD_CLOEXEC), "hold back output")) {
  CheckedFd(dup2(held_, STDOUT_FILENO), "hold back output");
  CheckedFd(dup2(held_, STDERR_FILENO), "hold back output");
  openlog(kName, LOG_PID | LOG_PERROR, LOG_LOCAL1);
}

Console::~Console() {
  closelog();
  dup2(output_, STDOUT_FILENO);
  dup2(error_, STDERR_FILENO);
  close(output_);
  close(error_);
  close(held_);
}

bool Console::Print(std::string_view text) const { return WriteAll(output_, text); }

void Console::Complain(std::string_view text) const {
  WriteAll(error_, std::string(kName) + ": " + std::string(text) + "\n");
}

bool Console::IsTerminal() const { return isatty(output_) == 1; }

int Console::Columns() const {
  winsize size{};
  if (ioctl(output_, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    return size.ws_col;
  }
  const char* const columns = std::getenv("COLUMNS");
  const long number = columns != nullptr ? std::strtol(columns, nullptr, 10) : 0;
  constexpr int kUsual = 80;
  constexpr long kWidest = 1000;
  return number > 0 && number <= kWidest ? static_cast<int>(number) : kUsual;
}

Console::Held Console::TakeHeld() {
  constexpr long kMost = 64L * 1024;
  struct stat about {};
  const long size = fstat(held_, &about) == 0 ? about.st_size : 0;
  std::string text(static_cast<std::size_t>(std::clamp(size - taken_, 0L, kMost)), '\0');
  const ssize_t length = pread(held_, text.data(), text.size(), taken_);
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  taken_ = size;

  static const std::regex log_line(R"(packctl\[\d+\]: (?:[\w.]+:\d+ )?(.*))");
  Held held;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::smatch match;
    if (std::regex_match(line, match, log_line)) {
      held.log.push_back(match[1]);
    } else if (!line.empty()) {
      held.other.push_back(line);
    }
  }
  return held;
}

}  // namespace orbamira::packctl
