#pragma once

#include <sys/types.h>

#include <functional>

namespace orbamira::test {

// What a test takes away from itself, or from a program between fork() and exec(): rights, and calls of the system. All
// but OrdinaryUser holds for good in the thread that calls it and in what that starts, works unprivileged, and ends the
// process with 126 when the system refuses.

/// The system call `number` fails with `error` from now on, as on a kernel or a file system that lacks it.
void FailSystemCall(int number, int error);

/// Every system call that came after Linux 3.10 fails with ENOSYS from now on.
void BecomeLinux310();

/// unlinkat() fails with `error` from now on where it is to remove a folder.
void FailRemovalOfFolders(int error);

/// No child with an exit signal other than SIGCHLD can be made from now on: clone() fails with EINVAL, as an emulator
/// of another processor has it.
void FailCloneChildren();

/// setpgid() of another process fails with EACCES from now on, as for a child that has become another program.
void FailGroupsOfChildren();

/// Goes on as the user "nobody" when we are root, so that the modes of files count.
void BecomeOrdinaryUser();

/// No further process or program can be started: fork() and exec() fail with EPERM. Threads can.
void RefuseProcesses();

/// Runs the body in a thread of its own where the system call `number` fails with `error`.
void WithFailingCall(int number, int error, const std::function<void()>& body);

/// For its life this process is the user "nobody" when it is root, so that the modes of files count.
class OrdinaryUser {
 public:
  OrdinaryUser();
  ~OrdinaryUser();
  OrdinaryUser(const OrdinaryUser&) = delete;
  OrdinaryUser& operator=(const OrdinaryUser&) = delete;

 private:
  uid_t before_;
};

}  // namespace orbamira::test
