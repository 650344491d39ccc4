#include "platform/orba_core_wrapper.h"

#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <optional>
#include <string_view>

#include "platform/posix/older_systems.h"
#include "platform/settings_file.h"

// How a program is run.
//
// The host of this library may ignore SIGCHLD, set SA_NOCLDWAIT, or reap every child in a handler: the exit status of a
// direct child would then be lost, and execve(2) gives every child SIGCHLD as its exit signal, whatever it was cloned
// with. So a supervisor stands in between: a copy of this process that never executes another program, starts the
// program in a signal table of its own, waits for it, and leaves the result in a page shared with the caller. It is
// cloned with exit signal 0, which makes it a "clone child": the kernel never reaps it by itself and shows it only to
// those who wait with __WCLONE.
//
// It is a copy and does not share the caller's memory (CLONE_VM | CLONE_VFORK) because the caller would be stopped
// until the program ends: no signal would be handled, and setuid() in any other thread, which needs an answer from
// every thread, would hang as long. The copy costs about 4 ms for each 100 MB that the host has in use.
//
// Should the host die, the supervisor ends the program: what recovers from that death must not find it still changing
// files. It asks first, because the program that runs plugins has to end those too.
//
// Threads of the host may hold any lock at the moment of the copy, so the supervisor makes system calls only and takes
// no memory from the heap.
namespace orbamira::wrapper {
namespace {

constexpr int kNotStarted = -1;

// What the kernel sends to the supervisor when its caller dies. Others may send it too, so it only asks for a look.
constexpr int kCallerDied = SIGHUP;

// How long a program may take to end when it is asked to; more than the one that runs plugins gives a plugin.
constexpr timespec kGrace{.tv_sec = 8, .tv_nsec = 0};

// One number that supervisor and caller both see.
class SharedResult {
 public:
  SharedResult() : page_(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {}
  SharedResult(const SharedResult&) = delete;
  SharedResult& operator=(const SharedResult&) = delete;
  ~SharedResult() {
    if (valid()) {
      munmap(page_, sizeof(int));
    }
  }

  [[nodiscard]] bool valid() const { return page_ != MAP_FAILED; }
  int& operator*() const { return *static_cast<int*>(page_); }

 private:
  void* page_;
};

// Default dispositions and an empty mask, whatever the host has set.
class SpawnAttributes {
 public:
  SpawnAttributes() {
    sigset_t signals;
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }

  [[nodiscard]] const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_{};
};

void WaitFor(pid_t process, int* status, int options) {
  while (waitpid(process, status, options) < 0 && errno == EINTR) {
  }
}

// Standard input from /dev/null, and so the others where the caller has nothing that a child is to inherit: closed, or
// close-on-exec, which is any descriptor of the host's own that was opened while the stream was closed. Going upwards,
// the stream at hand is the lowest free descriptor, the one that open() takes.
bool PrepareStandardStreams() {
  return std::ranges::all_of(std::array{STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}, [](int stream) {
    if (stream != STDIN_FILENO && fcntl(stream, F_GETFD) == 0) {
      return true;
    }
    close(stream);
    return open("/dev/null", O_RDWR) == stream;
  });
}

int AskToEndAndWait(pid_t program) {
  sigset_t awaited;
  sigemptyset(&awaited);
  sigaddset(&awaited, SIGCHLD);
  kill(program, SIGTERM);
  int status = 0;
  while (waitpid(program, &status, WNOHANG) == 0) {
    if (sigtimedwait(&awaited, nullptr, &kGrace) < 0) {
      kill(program, SIGKILL);
      WaitFor(program, &status, 0);
      break;
    }
  }
  return status;
}

// All signals are blocked, so that one which comes between the look and the wait is kept.
int WaitWhileCallerLives(pid_t program, pid_t caller) {
  sigset_t awaited;
  sigemptyset(&awaited);
  sigaddset(&awaited, SIGCHLD);
  sigaddset(&awaited, kCallerDied);
  // A caller that has unshared its process namespace is outside of ours and has no number here, alive or dead. Its
  // death then shows by a signal from outside.
  const bool is_outside = getppid() == 0;
  siginfo_t signal{};
  int status = 0;
  while (waitpid(program, &status, WNOHANG) == 0) {
    if (is_outside ? signal.si_signo == kCallerDied && signal.si_pid == 0 : getppid() != caller) {
      return AskToEndAndWait(program);
    }
    sigwaitinfo(&awaited, &signal);
  }
  return status;
}

int RunAndWait(char* const* arguments, const posix_spawnattr_t* attributes, pid_t caller) {
  prctl(PR_SET_PDEATHSIG, kCallerDied);
  pid_t program = 0;
  if (posix_spawn(&program, arguments[0], nullptr, attributes, arguments, environ) != 0) {
    return kNotStarted;
  }
  const int status = WaitWhileCallerLives(program, caller);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Runs with all signals blocked. Descriptors go first: should the host die, the supervisor must hold none of its locks.
[[noreturn]] void Supervise(char* const* arguments, const posix_spawnattr_t* attributes, pid_t caller, int& result) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  struct sigaction keep_children {};  // SIG_DFL, and no SA_NOCLDWAIT
  keep_children.sa_flags = SA_NOCLDSTOP;
  sigaction(SIGCHLD, &keep_children, nullptr);
  CloseFrom(STDERR_FILENO + 1);
  result = PrepareStandardStreams() ? RunAndWait(arguments, attributes, caller) : kNotStarted;
  syscall(SYS_exit_group, 0);  // not _exit(), where a sanitizer waits for threads that the copy does not have
  __builtin_unreachable();
}

// fork() with exit signal 0; every other argument of the system call is 0 too, so that their order, which differs
// between machines, does not matter.
pid_t ForkSupervisor() { return static_cast<pid_t>(syscall(SYS_clone, 0L, 0L, 0L, 0L, 0L)); }

pid_t StartSupervisor(char* const* arguments, const posix_spawnattr_t* attributes, int& result) {
  const AllSignalsBlocked blocked;  // no handler of the host's may run in the copy
  const pid_t caller = getpid();
  const pid_t supervisor = ForkSupervisor();
  if (supervisor == 0) {
    Supervise(arguments, attributes, caller, result);
  }
  return supervisor;
}

}  // namespace

int OrbaCoreWrapper::RunCommand(const std::vector<std::string>& args) {
  // An argument ends at its first NUL: one that holds another cannot be given to a program as it is.
  const auto holds_nul = [](const std::string& argument) { return argument.find('\0') != std::string::npos; };
  if (args.empty() || std::any_of(args.begin(), args.end(), holds_nul)) {
    return kNotStarted;
  }
  std::vector<std::string> texts = args;
  std::vector<char*> arguments;
  arguments.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    arguments.push_back(text.data());
  }
  arguments.push_back(nullptr);

  const SpawnAttributes attributes;
  const SharedResult result;
  if (!result.valid()) {
    return kNotStarted;
  }
  *result = -SIGKILL;  // what stays if the supervisor is killed, which no other signal can do
  const pid_t supervisor = StartSupervisor(arguments.data(), attributes.get(), *result);
  if (supervisor < 0) {
    return kNotStarted;
  }
  WaitFor(supervisor, nullptr, static_cast<int>(__WCLONE));
  return *result;
}

std::string OrbaCoreWrapper::GetKeyValue(const std::string& file, const std::string& key) {
  return ReadSetting(file, key);
}

}  // namespace orbamira::wrapper
