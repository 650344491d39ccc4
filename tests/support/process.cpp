#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ostream>
#include <stdexcept>
#include <system_error>

namespace orbamira::test {
namespace {

class Pipe {
 public:
  Pipe() {
    if (pipe2(ends_.data(), O_CLOEXEC) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe2");
    }
  }
  ~Pipe() {
    CloseRead();
    CloseWrite();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  [[nodiscard]] int read_end() const { return ends_[0]; }
  [[nodiscard]] int write_end() const { return ends_[1]; }
  void CloseRead() { Close(ends_[0]); }
  void CloseWrite() { Close(ends_[1]); }

 private:
  static void Close(int& fd) {
    if (fd >= 0) {
      close(fd);
      fd = -1;
    }
  }

  std::array<int, 2> ends_ = {-1, -1};
};

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

/// Ours, with the additions in front: the first of two equal names counts.
std::vector<std::string> Environment(std::vector<std::string> additions) {
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::string name = text.substr(0, text.find('=') + 1);
    if (std::none_of(additions.begin(), additions.end(), [&](const auto& a) { return a.starts_with(name); })) {
      additions.push_back(text);
    }
  }
  return additions;
}

/// Reads both pipes until the child has closed them, or until the time is up: then it kills the child.
void Collect(pid_t child, const Pipe& out, const Pipe& err, std::chrono::seconds limit, ProcessResult& result) {
  const auto end = std::chrono::steady_clock::now() + limit;
  std::array<pollfd, 2> pipes = {pollfd{out.read_end(), POLLIN, 0}, pollfd{err.read_end(), POLLIN, 0}};
  const std::array<std::string*, 2> texts = {&result.out, &result.err};
  std::array<char, 16384> buffer = {};
  while (pipes[0].fd >= 0 || pipes[1].fd >= 0) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      kill(child, SIGKILL);
      return;
    }
    poll(pipes.data(), pipes.size(), static_cast<int>(left.count()));
    for (size_t i = 0; i < pipes.size(); ++i) {
      if (pipes[i].fd < 0 || pipes[i].revents == 0) {
        continue;
      }
      const ssize_t count = read(pipes[i].fd, buffer.data(), buffer.size());
      if (count > 0) {
        texts[i]->append(buffer.data(), static_cast<size_t>(count));
      } else if (count == 0 || errno != EINTR) {
        pipes[i].fd = -1;
      }
    }
  }
}

[[noreturn]] void RunChild(const Pipe& in, const Pipe& out, const Pipe& err, const Pipe& failure,
                           const ProcessOptions& options, char* const* argv, char* const* environment) {
  if (dup2(in.read_end(), STDIN_FILENO) >= 0 && dup2(out.write_end(), STDOUT_FILENO) >= 0 &&
      dup2(err.write_end(), STDERR_FILENO) >= 0 && (options.folder.empty() || chdir(options.folder.c_str()) == 0)) {
    if (options.before_exec) {
      options.before_exec();
    }
    execvpe(argv[0], argv, environment);
  }
  const int error = errno;
  const ssize_t written = write(failure.write_end(), &error, sizeof error);
  static_cast<void>(written);
  _exit(127);
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const ProcessResult& result) {
  return stream << "exit status " << result.exit_status << ", signal " << result.signal << ", out \"" << result.out
                << "\", err \"" << result.err << '"';
}

ProcessResult RunProgram(const std::vector<std::string>& argv, const ProcessOptions& options) {
  Pipe in;
  Pipe out;
  Pipe err;
  Pipe failure;
  std::vector<std::string> arguments = argv;
  std::vector<std::string> environment = Environment(options.environment);
  const std::vector<char*> argument_pointers = Pointers(arguments);
  const std::vector<char*> environment_pointers = Pointers(environment);
  if (!options.input.empty() &&
      write(in.write_end(), options.input.data(), options.input.size()) != static_cast<ssize_t>(options.input.size())) {
    throw std::system_error(errno, std::generic_category(), "write");
  }
  in.CloseWrite();

  const pid_t child = fork();
  if (child < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (child == 0) {
    RunChild(in, out, err, failure, options, argument_pointers.data(), environment_pointers.data());
  }
  in.CloseRead();
  out.CloseWrite();
  err.CloseWrite();
  failure.CloseWrite();

  ProcessResult result;
  Collect(child, out, err, options.limit, result);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  int error = 0;
  if (read(failure.read_end(), &error, sizeof error) == sizeof error) {
    throw std::system_error(error, std::generic_category(), argv[0]);
  }
  result.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  return result;
}

}  // namespace orbamira::test
