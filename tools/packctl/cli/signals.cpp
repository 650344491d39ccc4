#include "tools/packctl/cli/signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "tools/packctl/cli/command.h"

namespace orbamira::packctl {
namespace {

// Ends in the handler: the program may be waiting for a lock, or for a terminal that takes no more.
void End(int /*signal_number*/) { _exit(kExitDone); }

void EndLineAndEnd(int signal_number) {
  const int terminal = open("/dev/tty", O_WRONLY | O_CLOEXEC | O_NOCTTY);
  if (terminal >= 0 && write(terminal, "\n", 1) < 0) {
    _exit(kExitFailed);
  }
  End(signal_number);
}

}  // namespace

void EndOnSignals(bool on_terminal) {
  struct sigaction action {};
  action.sa_handler = on_terminal ? EndLineAndEnd : End;
  for (const int signal_number : {SIGINT, SIGTERM}) {
    sigaction(signal_number, &action, nullptr);
  }
}

}  // namespace orbamira::packctl
