#pragma once

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>

namespace orbamira::test {

/// Another process that runs `body` and ends with the status that it returns; 99 when it throws. Waited for at the
/// latest by the destructor.
class Forked {
 public:
  explicit Forked(const std::function<int()>& body) : pid_(fork()) {
    if (pid_ < 0) {
      throw std::runtime_error("fork");
    }
    if (pid_ == 0) {
      int status = 99;
      try {
        status = body();
      } catch (...) {  // NOLINT(bugprone-empty-catch): the status tells
      }
      _exit(status);
    }
  }
  Forked(const Forked&) = delete;
  Forked& operator=(const Forked&) = delete;
  ~Forked() { Wait(); }

  [[nodiscard]] pid_t pid() const { return pid_; }

  /// Its exit status, or the negative number of the signal that ended it.
  int Wait() {
    if (!waited_) {
      waited_ = true;
      int status = 0;
      waitpid(pid_, &status, 0);
      result_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return result_;
  }

 private:
  pid_t pid_;
  bool waited_ = false;
  int result_ = 0;
};

/// What a process returns when the system refuses it the root or namespace that it asked for.
constexpr int kMayNotUnshare = 77;

/// In a forked process: goes on with `folder` as the whole file system, so without /proc and /dev. False when the
/// system does not let it.
inline bool EnterRoot(const std::string& folder) {
  return (geteuid() == 0 || unshare(CLONE_NEWUSER) == 0) && chroot(folder.c_str()) == 0 && chdir("/") == 0;
}

}  // namespace orbamira::test
