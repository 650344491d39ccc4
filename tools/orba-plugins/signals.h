#pragma once

#include "platform/posix/unique_fd.h"

// Waits for signals as for any other event.
namespace orbamira::plugins {

/// Blocks SIGCHLD and the signals that ask this program to end (SIGHUP, SIGINT, SIGTERM), and makes them something to
/// poll for. A forked process may keep using the object; it then gets its own signals.
class Signals {
 public:
  /// Throws std::system_error.
  Signals();

  /// The descriptor to poll; it is readable when a signal has come.
  [[nodiscard]] int fd() const { return fd_.get(); }

  /// Takes the signals that have come.
  void Take();

  /// The first signal taken that asked this program to end; 0 when there was none.
  [[nodiscard]] int stop() const { return stop_; }

  /// Unblocks all signals and resets their handlers. For a forked process, before it executes another program.
  static void Reset();

 private:
  UniqueFd fd_;
  int stop_ = 0;
};

}  // namespace orbamira::plugins
