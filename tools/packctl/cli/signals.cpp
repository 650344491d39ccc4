#include "tools/packctl/cli/signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "platform/posix/program.h"
#include "tools/packctl/cli/command.h"

namespace orbamira::packctl {
namespace {

using Handler = void (*)(int);

// Best effort: how the program ends does not depend on it.
void EndLine() {
  const int terminal = open("/dev/tty", O_WRONLY | O_CLOEXEC | O_NOCTTY);
  [[maybe_unused]] const bool written = terminal >= 0 && write(terminal, "\n", 1) == 1;
}

void EndLineAndDie(int signal_number) {
  EndLine();
  static_cast<void>(raise(signal_number));  // SA_RESETHAND: now as the signal says
}

// Ends in the handler: the program may be waiting for a lock, or for a terminal that takes no more.
void End(int /*signal_number*/) { _exit(kExitDone); }

void EndLineAndEnd(int signal_number) {
  EndLine();
  End(signal_number);
}

void HandleEndSignals(Handler handler) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal_number : {SIGINT, SIGTERM}) {
    sigaction(signal_number, &action, nullptr);
  }
}

}  // namespace

void SetUpSignals(bool on_terminal) {
  IgnoreOutputSignals();  // they must not end an install halfway
  if (on_terminal) {
    HandleEndSignals(EndLineAndDie);
  }
}

void EndOnSignals(bool on_terminal) { HandleEndSignals(on_terminal ? EndLineAndEnd : End); }

}  // namespace orbamira::packctl
