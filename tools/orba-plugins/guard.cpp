#include "tools/orba-plugins/guard.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <optional>

#include "platform/posix/files.h"
#include "tools/orba-plugins/children.h"
#include "tools/orba-plugins/failure.h"

namespace orbamira::plugins {
namespace {

/// The wait status of the process that runs the plugins; empty while it is running.
using WorkStatus = std::optional<int>;

void Await(const Signals& signals, int milliseconds) {
  pollfd event{signals.fd(), POLLIN, 0};
  poll(&event, 1, milliseconds);
}

void EndWhatIsLeft(const Signals& signals) {
  ChildrenEnd end(0);
  while (ReapChildren([](pid_t, int) {}) && end.Continue()) {
    Await(signals, static_cast<int>(kEndInterval.count()));
  }
}

WorkStatus AwaitWork(Signals& signals, pid_t worker) {
  WorkStatus status;
  const auto note = [&](pid_t child, int wait_status) {
    if (child == worker) {
      status = wait_status;
    }
  };
  bool told = false;
  while (ReapChildren(note) && !status) {
    Await(signals, -1);
    signals.Take();
    if (signals.stop() != 0 && !told) {
      kill(worker, signals.stop());
      told = true;
    }
  }
  return status;
}

}  // namespace

int RunGuarded(Signals& signals, const std::function<int()>& work) {
  // When our parent dies, nobody waits for the plugins any more.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  AdoptOrphans();
  const pid_t guard = getpid();
  const pid_t worker = fork();
  if (worker < 0) {
    ThrowErrno("cannot make a process");
  }
  if (worker == 0) {
    setpgid(0, 0);
    AdoptOrphans();
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    std::exit(getppid() == guard ? work() : EXIT_FAILURE);
  }
  const WorkStatus status = AwaitWork(signals, worker);
  EndWhatIsLeft(signals);
  if (status && WIFEXITED(*status)) {
    return WEXITSTATUS(*status);
  }
  Report("the process that runs the plugins was killed");
  return EXIT_FAILURE;
}

}  // namespace orbamira::plugins
