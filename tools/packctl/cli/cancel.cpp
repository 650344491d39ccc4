#include "tools/packctl/cli/cancel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <system_error>
#include <vector>

#include "platform/log.h"
#include "platform/posix/errors.h"

namespace orbamira::packctl {
namespace {

sigset_t EndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

sigset_t BlockEndSignals() {
  const sigset_t signals = EndSignals();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &signals, &before);
  return before;
}

UniqueFd OpenSignals() {
  const sigset_t signals = EndSignals();
  return UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

// The words of this process's command line.
std::vector<std::string> OwnCommandLine() {
  constexpr std::size_t kMost = 1UL << 20U;
  const UniqueFd file = OpenFile("/proc/self/cmdline", O_RDONLY);
  const std::string text = file.valid() ? ReadUpTo(file.get(), kMost).value_or("") : "";
  std::vector<std::string> words;
  for (std::size_t begin = 0; begin < text.size(); begin = text.find('\0', begin) + 1) {
    words.emplace_back(text.c_str() + begin);
  }
  return words;
}

// The signals stay blocked: what is put in order then is not left again.
void BecomeCancelled(const Console& console) {
  std::vector<std::string> words = OwnCommandLine();
  words.emplace_back("--cancelled");
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  console.GiveBack();
  execv("/proc/self/exe", arguments.data());
  ORBAMIRA_LOG_ERROR("Cannot cancel: %s", std::generic_category().message(errno).c_str());  // the work goes on
}

}  // namespace

CancelOnSignals::CancelOnSignals(const Console& console)
    : console_(console),
      before_(BlockEndSignals()),
      signals_(OpenSignals()),
      ended_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!signals_.valid() || !ended_.valid()) {
    ThrowErrno("cannot watch for signals");
  }
  watcher_ = std::thread([this] { Watch(); });
}

CancelOnSignals::~CancelOnSignals() {
  static_cast<void>(eventfd_write(ended_.get(), 1));
  watcher_.join();
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void CancelOnSignals::Watch() const {
  std::array<pollfd, 2> waited{
      {{.fd = ended_.get(), .events = POLLIN, .revents = 0}, {.fd = signals_.get(), .events = POLLIN, .revents = 0}}};
  while (poll(waited.data(), waited.size(), -1) < 0 && errno == EINTR) {
  }
  signalfd_siginfo signal{};
  if (read(signals_.get(), &signal, sizeof signal) == sizeof signal) {
    BecomeCancelled(console_);
  }
}

void AwaitPrograms() {
  while (waitpid(-1, nullptr, static_cast<int>(__WALL)) > 0 || errno == EINTR) {
  }
}

}  // namespace orbamira::packctl
