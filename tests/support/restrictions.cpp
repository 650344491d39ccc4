#include "tests/support/restrictions.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/filter.h>
#include <linux/sched.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <system_error>
#include <thread>

namespace orbamira::test {
namespace {

constexpr unsigned kNobody = 65534;

void InstallFilter(std::span<sock_filter> filter) {
  const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    _exit(126);
  }
}

void SetEffectiveUser(uid_t user) {
  if (seteuid(user) != 0) {
    throw std::system_error(errno, std::generic_category(), "seteuid");
  }
}

}  // namespace

void FailSystemCall(int number, int error) {
  std::array<sock_filter, 4> filter = {
      sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  InstallFilter(filter);
}

void BecomeLinux310() {
  std::array<sock_filter, 4> filter = {
      sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      sock_filter BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, SYS_sched_setattr, 0, 1),  // the first of Linux 3.14
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  InstallFilter(filter);
}

void FailRemovalOfFolders(int error) {
  constexpr unsigned kFlags = offsetof(seccomp_data, args) + 2 * sizeof(std::uint64_t);  // the third argument
  std::array<sock_filter, 6> filter = {
      sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_unlinkat, 0, 3),
      sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFlags),
      sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AT_REMOVEDIR, 0, 1),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  InstallFilter(filter);
}

void FailCloneChildren() {
  constexpr unsigned kFlags = offsetof(seccomp_data, args);
  std::array<sock_filter, 7> filter = {sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                       sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 0, 4),
                                       sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFlags),
                                       sock_filter BPF_STMT(BPF_ALU | BPF_AND | BPF_K, CSIGNAL),
                                       sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 1),
                                       sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
                                       sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  InstallFilter(filter);
}

void FailGroupsOfChildren() {
  constexpr unsigned kProcess = offsetof(seccomp_data, args);
  std::array<sock_filter, 6> filter = {sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                       sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_setpgid, 0, 3),
                                       sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kProcess),
                                       sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0),
                                       sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EACCES),
                                       sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  InstallFilter(filter);
}

void BecomeOrdinaryUser() {
  if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)) {
    _exit(126);
  }
}

void RefuseProcesses() {
  if (prctl(PR_GET_SECCOMP, 0, 0, 0, 0) < 0) {
    return;  // an emulator of another processor refuses filters; a native run finds who starts a process
  }
#if defined(SYS_fork) && defined(SYS_vfork)
  FailSystemCall(SYS_fork, EPERM);
  FailSystemCall(SYS_vfork, EPERM);
#endif
  FailSystemCall(SYS_execve, EPERM);
  FailSystemCall(SYS_execveat, EPERM);
  FailSystemCall(SYS_clone3, ENOSYS);  // whose flags a filter cannot see: the C library turns to clone() then
  constexpr unsigned kFlags = offsetof(seccomp_data, args);
  std::array<sock_filter, 6> filter = {sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                       sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 0, 3),
                                       sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFlags),
                                       sock_filter BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, CLONE_THREAD, 1, 0),
                                       sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
                                       sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  InstallFilter(filter);
}

void WithFailingCall(int number, int error, const std::function<void()>& body) {
  std::thread([&] {
    FailSystemCall(number, error);
    body();
  }).join();
}

OrdinaryUser::OrdinaryUser() : before_(geteuid()) {
  if (before_ == 0) {
    SetEffectiveUser(kNobody);
  }
}

OrdinaryUser::~OrdinaryUser() { SetEffectiveUser(before_); }

}  // namespace orbamira::test
