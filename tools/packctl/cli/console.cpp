#include "tools/packctl/cli/console.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <sstream>
#include <system_error>
#include <utility>

#include "platform/posix/files.h"
#include "platform/posix/older_systems.h"

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

// Takes `front` off the text; false when the text does not begin with it.
bool Skip(std::string_view& text, std::string_view front) {
  const bool found = text.starts_with(front);
  text.remove_prefix(found ? front.size() : 0);
  return found;
}

// Takes the longest front made of these characters off the text; false when there is none.
bool SkipAnyOf(std::string_view& text, std::string_view characters) {
  const std::size_t length = std::min(text.find_first_not_of(characters), text.size());
  text.remove_prefix(length);
  return length > 0;
}

// What the library logged with this line, without "packctl[PID]: " and "FILE:LINE " in front; empty for a line that is
// not from the log. By hand: a message may quote text of any length from outside, and a std::regex recurses over it.
std::optional<std::string_view> LoggedMessage(std::string_view line) {
  constexpr std::string_view kDigits = "0123456789";
  constexpr std::string_view kFileName = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.";
  if (!Skip(line, kName) || !Skip(line, "[") || !SkipAnyOf(line, kDigits) || !Skip(line, "]: ")) {
    return std::nullopt;
  }
  std::string_view message = line;
  const bool has_source =
      SkipAnyOf(message, kFileName) && Skip(message, ":") && SkipAnyOf(message, kDigits) && Skip(message, " ");
  return has_source ? message : line;
}

const char* ColorOf(Tone tone) {
  switch (tone) {
    case Tone::kGood:
      return "\033[32m";
    case Tone::kWarning:
      return "\033[33m";
    case Tone::kBad:
      return "\033[31m";
    case Tone::kPlain:
      break;
  }
  return "";
}

// The end of the last line stays outside, where a terminal expects it.
std::string InColor(const std::string& text, Tone tone) {
  if (tone == Tone::kPlain || text.empty()) {
    return text;
  }
  const std::size_t end = text.ends_with('\n') ? text.size() - 1 : text.size();
  return ColorOf(tone) + text.substr(0, end) + "\033[0m" + text.substr(end);
}

}  // namespace

Console::Console()
    : output_(KeepAside(STDOUT_FILENO)),
      error_(KeepAside(STDERR_FILENO)),
      held_(CheckedFd(OpenUnnamedFile(kName).Release(), "hold back output")) {
  CheckedFd(dup2(held_, STDOUT_FILENO), "hold back output");
  CheckedFd(dup2(held_, STDERR_FILENO), "hold back output");
  openlog(kName, LOG_PID | LOG_PERROR, LOG_LOCAL1);
}

void Console::GiveBack() const {
  dup2(output_, STDOUT_FILENO);
  dup2(error_, STDERR_FILENO);
}

Console::~Console() {
  closelog();
  GiveBack();
  close(output_);
  close(error_);
  close(held_);
}

bool Console::Print(std::string_view text) const { return WriteAll(output_, text); }

void Console::Complain(std::string_view text, Tone tone) const {
  WriteAll(error_,
           std::string(kName) + ": " + InColor(Printable(text), HasColors(error_) ? tone : Tone::kPlain) + "\n");
}

std::string Console::Painted(std::string_view text, Tone tone) const {
  return InColor(std::string(text), HasColors(output_) ? tone : Tone::kPlain);
}

bool Console::HasColors(int fd) const {
  if (color_ != ColorChoice::kAuto) {
    return color_ == ColorChoice::kAlways;
  }
  const auto variable = [](const char* name) {
    const char* const value = std::getenv(name);
    return std::string_view(value == nullptr ? "" : value);
  };
  return isatty(fd) == 1 && variable("NO_COLOR").empty() && variable("TERM") != "dumb";
}

bool Console::IsTerminal() const { return isatty(output_) == 1; }

bool Console::CanAsk() const { return IsTerminal() && isatty(STDIN_FILENO) == 1; }

bool Console::Confirm(std::string_view question) const {
  Print(std::string(question) + " [y/N] ");
  std::array<char, 256> line{};  // a terminal gives a line at a time
  const ssize_t length = read(STDIN_FILENO, line.data(), line.size());
  return length > 0 && (line.front() == 'y' || line.front() == 'Y');
}

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

std::vector<std::string> Console::Held::Reasons(const std::string& problem) const {
  std::vector<std::string> reasons = other;
  reasons.insert(reasons.end(), log.begin(), log.end());
  reasons.push_back(problem);
  return reasons;
}

Console::Held Console::TakeHeld() {
  Look(false);
  return std::exchange(lines_, {});
}

const Console::Held& Console::LookAtHeld() {
  Look(false);
  return lines_;
}

std::vector<std::string> Console::TakeOther() {
  Look(true);
  std::vector<std::string>& lines = lines_.other;
  const auto ours = std::stable_partition(lines.begin(), lines.end(),
                                          [](const std::string& line) { return !line.starts_with("orba-"); });
  std::vector<std::string> taken(std::make_move_iterator(lines.begin()), std::make_move_iterator(ours));
  lines.erase(lines.begin(), ours);
  return taken;
}

void Console::Look(bool at_whole_lines) {
  constexpr off_t kMost = 64L * 1024;
  constexpr std::size_t kMostLogged = 1000;
  struct stat about {};
  const off_t size = fstat(held_, &about) == 0 ? about.st_size : 0;
  std::string text(static_cast<std::size_t>(std::clamp<off_t>(size - taken_, 0, kMost)), '\0');
  const ssize_t length = pread(held_, text.data(), text.size(), taken_);
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  const std::size_t whole = text.rfind('\n') + 1;  // npos + 1 is 0
  if (at_whole_lines && size - taken_ <= kMost) {
    text.resize(whole);
    taken_ += static_cast<off_t>(whole);
  } else {
    taken_ = size;
  }
  if (taken_ > 0) {
    // A command that runs for months would gather them. Should it fail, that costs memory alone.
    static_cast<void>(fallocate(held_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, taken_));
  }

  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (const auto message = LoggedMessage(line)) {
      if (lines_.log.size() < kMostLogged) {
        lines_.log.emplace_back(*message);
      }
    } else if (!line.empty()) {
      lines_.other.push_back(line);
    }
  }
}

}  // namespace orbamira::packctl
