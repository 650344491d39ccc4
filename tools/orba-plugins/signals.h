#pragma once

#include "platform/posix/unique_fd.h"

// The signals that the program of the plugins waits for.
namespace orbamira::plugins {

/// Holds back SIGCHLD and the signals that end this program (SIGHUP, SIGINT, SIGTERM), as something to poll for. A
/// forked process may go on with the object: it is then about the signals that the forked process gets.
class Signals {
 public:
  /// Throws std::system_error.
  Signals();

  /// Readable once a signal has come.
  [[nodiscard]] int fd() const { return fd_.get(); }

  /// Takes those that have come.
  void Take();

  /// The first of those taken that is to end this program; 0 when there was none.
  [[nodiscard]] int stop() const { return stop_; }

  /// For a forked process, before it becomes another program: nothing held back or ignored any more.
  static void Reset();

 private:
  UniqueFd fd_;
  int stop_ = 0;
};

}  // namespace orbamira::plugins
