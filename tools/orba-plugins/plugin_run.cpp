#include "tools/orba-plugins/plugin_run.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/posix/files.h"
#include "platform/posix/unique_fd.h"
#include "tools/orba-plugins/children.h"
#include "tools/orba-plugins/failure.h"
#include "tools/orba-plugins/output_lines.h"
#include "tools/orba-plugins/plugin_folder.h"

namespace orbamira::plugins {
namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
  UniqueFd read_end;
  UniqueFd write_end;
};

/// Reading does not block; writing does.
Pipe MakePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    ThrowErrno("cannot make a pipe");
  }
  Pipe pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
  fcntl(pipe.read_end.get(), F_SETFL, O_NONBLOCK);
  return pipe;
}

/// Executes the plugin in the forked process. Returns only on failure, with errno set.
void BecomePlugin(char* const* arguments, int output, int errors, pid_t parent) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    static_cast<void>(raise(SIGKILL));
  }
  const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (dup2(input, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 || dup2(errors, STDERR_FILENO) < 0) {
    return;
  }
  Signals::Reset();
  execv(arguments[0], arguments);
}

struct Started {
  pid_t process;
  UniqueFd output;
  UniqueFd errors;
};

/// Starts the plugin. Throws std::system_error when that fails.
Started Start(const std::string& plugin, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), plugin);
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);

  Pipe output = MakePipe();
  Pipe errors = MakePipe();
  Pipe failure = MakePipe();
  const pid_t parent = getpid();
  const pid_t process = fork();
  if (process < 0) {
    ThrowErrno("cannot make a process");
  }
  if (process == 0) {
    BecomePlugin(argv.data(), output.write_end.get(), errors.write_end.get(), parent);
    const int error = errno;
    _exit(write(failure.write_end.get(), &error, sizeof error) < 0 ? EXIT_FAILURE : EXIT_SUCCESS);
  }
  setpgid(process, process);  // in both processes: either may come first
  failure.write_end = UniqueFd();
  fcntl(failure.read_end.get(), F_SETFL, 0);
  int error = 0;
  if (ReadSome(failure.read_end.get(), &error, sizeof error) == static_cast<ssize_t>(sizeof error)) {
    waitpid(process, nullptr, 0);
    throw std::system_error(error, std::generic_category());
  }
  return {process, std::move(output.read_end), std::move(errors.read_end)};
}

class PluginRun {
 public:
  PluginRun(const std::string& plugin, Started started, double seconds, Signals& signals, const TakeOutput& take_output)
      : started_(std::move(started)),
        deadline_(Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))),
        signals_(signals),
        take_output_(take_output),
        lines_(std::filesystem::path(plugin).filename()) {}

  enum class Ending { kByItself, kTooLong, kTooMuch };

  /// Returns when everything has ended or cannot be ended.
  void Wait() {
    const auto note = [this](pid_t child, int status) { Note(child, status); };
    while (ReapChildren(note)) {
      if (!end_) {
        EndIfDue();
      }
      if (end_ && !end_->Continue()) {
        break;
      }
      AwaitEvent();
    }
    ReadRest();
    lines_.Finish();
  }

  [[nodiscard]] Ending ending() const { return ending_; }

  /// The plugin's own wait status; none when not even SIGKILL ended it.
  [[nodiscard]] std::optional<int> status() const { return status_; }

 private:
  void Note(pid_t child, int status) {
    if (child == started_.process) {
      status_ = status;
      if (end_) {
        end_->ForgetLeader();
      }
    }
  }

  void EndIfDue() {
    if (!status_ && Clock::now() >= deadline_) {
      ending_ = Ending::kTooLong;
    }
    if (status_ || ending_ != Ending::kByItself || signals_.stop() != 0) {
      end_.emplace(status_ ? 0 : started_.process);
    }
  }

  void AwaitEvent() {
    std::array<pollfd, 3> events{
        {{signals_.fd(), POLLIN, 0}, {started_.output.get(), POLLIN, 0}, {started_.errors.get(), POLLIN, 0}}};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
    const auto wait = end_ ? kEndInterval : std::max(left, std::chrono::milliseconds(0));
    poll(events.data(), events.size(), static_cast<int>(wait.count()));
    signals_.Take();
    Read(started_.output, OutputLines::kOutput);
    Read(started_.errors, OutputLines::kError);
  }

  /// False when there is nothing to read now.
  bool Read(UniqueFd& pipe, OutputLines::Stream stream) {
    std::array<char, std::size_t{64} * 1024> data;
    const ssize_t count = pipe.valid() ? ReadSome(pipe.get(), data.data(), data.size()) : -1;
    if (count == 0) {
      pipe = UniqueFd();
    }
    if (count <= 0) {
      return false;
    }
    const std::string_view piece(data.data(), static_cast<std::size_t>(count));
    if (stream == OutputLines::kError || !take_output_) {
      lines_.Take(stream, piece);
    } else if (!take_output_(piece) && ending_ == Ending::kByItself) {
      ending_ = Ending::kTooMuch;
    }
    return true;
  }

  /// Reads as much as the largest pipe contains, not more: a process that cannot be ended may print for ever.
  void ReadRest() {
    constexpr int kPieces = 16;
    for (int i = 0; i < kPieces && Read(started_.output, OutputLines::kOutput); ++i) {
    }
    for (int i = 0; i < kPieces && Read(started_.errors, OutputLines::kError); ++i) {
    }
  }

  Started started_;
  Clock::time_point deadline_;
  Signals& signals_;
  const TakeOutput& take_output_;
  OutputLines lines_;
  Ending ending_ = Ending::kByItself;
  std::optional<int> status_;
  std::optional<ChildrenEnd> end_;
};

/// Empty when nothing did.
std::string WhatWentWrong(const PluginRun& run, double seconds) {
  if (run.ending() == PluginRun::Ending::kTooMuch) {
    return "stopped: it printed more than 64 KiB";
  }
  if (run.ending() == PluginRun::Ending::kTooLong || !run.status()) {
    std::array<char, 32> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%g", seconds));
    return std::string("stopped: it took longer than ") + text.data() + " s";
  }
  if (WIFSIGNALED(*run.status())) {
    return "ended by signal " + std::to_string(WTERMSIG(*run.status()));
  }
  const int status = WEXITSTATUS(*run.status());
  return status == 0 ? "" : "exited with status " + std::to_string(status);
}

Started StartTrusted(const std::string& plugin, const std::vector<std::string>& arguments) try {
  CheckTrust(plugin);
  return Start(plugin, arguments);
} catch (const std::system_error& error) {
  throw NoAnswer(plugin, "cannot be started: " + error.code().message());
}

}  // namespace

void RunPlugin(const std::string& plugin, const std::vector<std::string>& arguments, double seconds, Signals& signals,
               const TakeOutput& take_output) {
  PluginRun run(plugin, StartTrusted(plugin, arguments), seconds, signals, take_output);
  run.Wait();
  if (signals.stop() != 0) {
    throw Stopped{signals.stop()};
  }
  const std::string problem = WhatWentWrong(run, seconds);
  const bool is_killed = run.status() && WIFSIGNALED(*run.status()) && WTERMSIG(*run.status()) == SIGKILL;
  if (is_killed && run.ending() == PluginRun::Ending::kByItself) {
    throw NoAnswer(plugin, problem);
  }
  if (!problem.empty()) {
    throw PluginFailure(plugin, problem);
  }
}

}  // namespace orbamira::plugins
