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
// The host of this library may ignore SIGCHLD, set SA_NOCLDWAIT, or reap every child in a handler. The exit status of a
// direct child would then be lost. Another exit signal does not help, because execve(2) sets it back to SIGCHLD.
//
// So there is a supervisor in between: a copy of this process that never executes another program. It starts the
// program with signal handlers of its own, waits for it, and leaves the result in a page that it shares with the
// caller. It is cloned with exit signal 0, which makes it a "clone child": the kernel never reaps it by itself, and
// only a wait with __WCLONE sees it. An emulator of another processor may refuse that; then it is an ordinary child,
// and a host that waits for any child may see it end.
//
// The supervisor is a copy and does not share the caller's memory (CLONE_VM | CLONE_VFORK), because that would stop the
// caller until the program ends. It would handle no signal, and setuid() in another thread, which waits for every
// thread, would hang. The copy takes about 4 ms for each 100 MB that the host uses.
//
// If the host dies, the supervisor ends the program, because recovery must not find it still changing files. It sends
// SIGTERM first: the program that runs plugins must end those too.
//
// A thread of the host may hold any lock at the moment of the copy. So the supervisor makes system calls only and
// allocates no memory.
namespace orbamira::wrapper {
namespace {

constexpr int kNotStarted = -1;

// The kernel sends it to the supervisor in the caller's name when the calling thread dies: with its process, or alone,
// as when another thread of it becomes a new program. Others may send it too, so the supervisor then checks.
constexpr int kCallerDied = SIGHUP;

// How long a program may take to end after SIGTERM: longer than the program that runs plugins gives a plugin.
constexpr timespec kGrace{.tv_sec = 8, .tv_nsec = 0};

// A number in memory that supervisor and caller share.
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

// Default signal handlers and an empty mask, whatever the host has set.
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

// Opens /dev/null as standard input, and as output and error where the caller has none for a child: they are closed, or
// close-on-exec, as a descriptor is that the host opened while the stream was closed. Going upwards, each stream is the
// lowest free descriptor, which open() takes.
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

// All signals are blocked, so one that arrives between the check and the wait is not lost.
int WaitWhileCallerLives(pid_t program, pid_t caller) {
  sigset_t awaited;
  sigemptyset(&awaited);
  sigaddset(&awaited, SIGCHLD);
  sigaddset(&awaited, kCallerDied);
  // After the caller unshared its process namespace, we are in the new one and it has no process id here, alive or
  // dead. Only a signal from outside then tells that it died.
  const bool is_outside = getppid() == 0;
  siginfo_t signal{};
  int status = 0;
  while (waitpid(program, &status, WNOHANG) == 0) {
    const bool is_told = signal.si_signo == kCallerDied && signal.si_pid == (is_outside ? 0 : caller);
    if (is_told || (!is_outside && getppid() != caller)) {
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

// Runs with all signals blocked. Closes descriptors first: if the host dies, the supervisor must not keep its locks.
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

// A copy of this process with exit signal 0. All arguments of the system call are 0, so their order, which depends on
// the processor, does not matter.
pid_t ForkSupervisor() {
  const auto supervisor = static_cast<pid_t>(syscall(SYS_clone, 0L, 0L, 0L, 0L, 0L));
  return supervisor < 0 && errno == EINVAL ? _Fork() : supervisor;
}

pid_t StartSupervisor(char* const* arguments, const posix_spawnattr_t* attributes, int& result) {
  const AllSignalsBlocked blocked;  // no signal handler of the host may run in the copy
  const pid_t caller = getpid();
  const pid_t supervisor = ForkSupervisor();
  if (supervisor == 0) {
    Supervise(arguments, attributes, caller, result);
  }
  return supervisor;
}

}  // namespace

int OrbaCoreWrapper::RunCommand(const std::vector<std::string>& args) {
  // A program sees an argument only up to the first NUL, so one with a NUL in it cannot be passed on.
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
  *result = -SIGKILL;  // stays if the supervisor is killed; no other signal can end it
  const pid_t supervisor = StartSupervisor(arguments.data(), attributes.get(), *result);
  if (supervisor < 0) {
    return kNotStarted;
  }
  WaitFor(supervisor, nullptr, static_cast<int>(__WALL));
  return *result;
}

std::string OrbaCoreWrapper::GetKeyValue(const std::string& file, const std::string& key) {
  return ReadSetting(file, key);
}

}  // namespace orbamira::wrapper
