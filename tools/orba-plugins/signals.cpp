#include "tools/orba-plugins/signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

#include "platform/posix/files.h"

namespace orbamira::plugins {

Signals::Signals() {
  // SIGCHLD may be ignored by inheritance; the kernel would then not keep the exit status of a plugin.
  static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
  sigset_t awaited;
  sigemptyset(&awaited);
  for (const int number : {SIGCHLD, SIGHUP, SIGINT, SIGTERM}) {
    sigaddset(&awaited, number);
  }
  sigprocmask(SIG_SETMASK, &awaited, nullptr);
  fd_ = UniqueFd(signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!fd_.valid()) {
    ThrowErrno("cannot wait for signals");
  }
}

void Signals::Take() {
  signalfd_siginfo info{};
  while (read(fd_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    if (info.ssi_signo != SIGCHLD && stop_ == 0) {
      stop_ = static_cast<int>(info.ssi_signo);
    }
  }
}

void Signals::Reset() {
  for (int number = 1; number < NSIG; ++number) {
    static_cast<void>(std::signal(number, SIG_DFL));
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace orbamira::plugins
