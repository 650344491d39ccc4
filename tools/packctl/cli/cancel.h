#pragma once

#include <csignal>
#include <thread>

#include "platform/posix/unique_fd.h"
#include "tools/packctl/cli/console.h"

/// How work is cancelled.
namespace orbamira::packctl {

/// Lets SIGINT and SIGTERM cancel the work that is done while the object lives.
///
/// The work may wait for a server that never answers, so it is not asked to end. The process becomes a new one with the
/// same command line and the option --cancelled: that ends the work at whatever point it is, as a crash does, and with
/// it the programs that it runs. The new process puts in order what is left.
class CancelOnSignals {
 public:
  /// Throws std::system_error. The console must outlive the object.
  explicit CancelOnSignals(const Console& console);

  /// From now on the signals do what they did before.
  ~CancelOnSignals();

  CancelOnSignals(const CancelOnSignals&) = delete;
  CancelOnSignals& operator=(const CancelOnSignals&) = delete;

 private:
  void Watch() const;

  const Console& console_;
  sigset_t before_{};
  UniqueFd signals_;
  UniqueFd ended_;
  std::thread watcher_;  // a thread of its own: the one that shows the progress may wait for its reader
};

/// Waits until the programs that a cancelled process was running have ended; they become ours. The supervisors of the
/// library see to it that they do.
void AwaitPrograms();

}  // namespace orbamira::packctl
