#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace orbamira::test {

/// How a program that was run ended, and what it printed.
struct ProcessResult {
  int exit_status = -1;  ///< -1 when it did not exit
  int signal = 0;        ///< the signal that ended it, 0 when it exited
  std::string out;
  std::string err;

  [[nodiscard]] bool Exited(int status) const { return signal == 0 && exit_status == status; }
  [[nodiscard]] bool EndedBy(int number) const { return signal == number; }
};

/// Printed when an expectation about a result fails.
std::ostream& operator<<(std::ostream& stream, const ProcessResult& result);

struct ProcessOptions {
  std::string folder;                    ///< where it runs; here when empty
  std::vector<std::string> environment;  ///< "NAME=value", on top of ours
  std::string input;                     ///< its standard input, which is empty by default; up to 64 KiB
  /// Called in the child just before the program starts, to set limits and the like. Only what is safe between fork()
  /// and exec() in a process with threads.
  std::function<void()> before_exec;
  /// A program that takes longer is killed, and the result says SIGKILL: a hang fails the test instead of holding it
  /// up.
  std::chrono::seconds limit{600};
};

/// Runs the program argv[0], looked up in PATH when it has no slash, and waits for its end. Throws std::runtime_error
/// when it cannot be started.
ProcessResult RunProgram(const std::vector<std::string>& argv, const ProcessOptions& options = {});

}  // namespace orbamira::test
