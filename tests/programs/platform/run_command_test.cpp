#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/file_lock.h"
#include "platform/orba_core_wrapper.h"
#include "tests/support/forked.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira::wrapper {
namespace {

namespace fs = std::filesystem;

using namespace std::string_literals;  // texts that hold a NUL

// A disposition of SIGCHLD for the life of the object.
class ScopedSigchld {
 public:
  ScopedSigchld(void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(SIGCHLD, &action, &before_);
  }
  ScopedSigchld(const ScopedSigchld&) = delete;
  ScopedSigchld& operator=(const ScopedSigchld&) = delete;
  ~ScopedSigchld() { sigaction(SIGCHLD, &before_, nullptr); }

 private:
  struct sigaction before_ {};
};

class OrbaCoreWrapperRunCommandTest : public testing::Test {
 protected:
  int Run(const std::vector<std::string>& args) { return wrapper_.RunCommand(args); }
  int RunScript(const std::string& script) { return Run({"/bin/sh", "-c", script, out_}); }
  [[nodiscard]] std::string Out() const { return test::ReadFile(out_); }

  test::TempDir folder_;
  const std::string out_ = folder_.File("out");  // "$0" of a script
  OrbaCoreWrapper wrapper_;
};

TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsTheExitStatus) {
  for (const int status : {0, 1, 3, 127, 128, 255}) {
    EXPECT_EQ(RunScript("exit " + std::to_string(status)), status);
  }
}

TEST_F(OrbaCoreWrapperRunCommandTest, LeavesNoMemoryBehind) {
  const auto mapped = [] {
    const std::string maps = test::ReadFile("/proc/self/maps");
    return std::ranges::count(maps, '\n');
  };
  Run({"/bin/true"});
  const auto before = mapped();
  for (int i = 0; i < 20; ++i) {
    Run({"/bin/true"});
  }
  EXPECT_EQ(mapped(), before);
}

TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsTheNegativeNumberOfTheSignal) {
  for (const int signal : {SIGHUP, SIGINT, SIGKILL, SIGTERM, SIGUSR1}) {
    EXPECT_EQ(RunScript("kill -" + std::to_string(signal) + " $$"), -signal);
  }
}

TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsMinusOneWhenTheProgramCannotBeStarted) {
  test::WriteFile(folder_.File("text"), "exit 0\n");
  EXPECT_EQ(Run({folder_.File("missing")}), -1);
  EXPECT_EQ(Run({folder_.File("text")}), -1);
  EXPECT_EQ(Run({folder_.path()}), -1);
  EXPECT_EQ(Run({""}), -1);
  EXPECT_EQ(Run({}), -1);
}

// Its end is not known then, and must not look like a success.
TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsMinusSigkillWhenTheSupervisorIsKilled) {
  EXPECT_EQ(RunScript("kill -KILL $PPID"), -SIGKILL);
}

TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsMinusOneWhenTheProgramWouldHaveNoInput) {
  test::Forked host([&] {
    test::FailSystemCall(SYS_openat, EACCES);  // of /dev/null
    return Run({"/bin/true"}) == -1 ? 0 : 1;
  });
  EXPECT_EQ(host.Wait(), 0);
}

// The error of an earlier call must not show in the supervisor, which is a copy.
TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsOnceWhateverErrorCameBefore) {
  test::Forked host([&] {
    errno = EINVAL;
    const int status = Run({"/bin/true"});
    std::ofstream(out_, std::ios::app) << 'x';
    return status;
  });
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_EQ(Out(), "x");
}

TEST_F(OrbaCoreWrapperRunCommandTest, DoesNotHandAFileThatIsNoProgramToAShell) {
  test::WriteFile(folder_.File("text"), "exit 0\n");
  fs::permissions(folder_.File("text"), fs::perms(0755));
  EXPECT_EQ(Run({folder_.File("text")}), -1);
}

TEST_F(OrbaCoreWrapperRunCommandTest, DoesNotSearchForTheProgram) { EXPECT_EQ(Run({"true"}), -1); }

TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsMinusOneWhenTheArgumentsAreTooLong) {
  EXPECT_EQ(Run({"/bin/true", std::string(1 << 20, 'x')}), -1);
}

TEST_F(OrbaCoreWrapperRunCommandTest, RefusesAnArgumentWithANul) {
  EXPECT_EQ(Run({"/bin/true", "a\0b"s}), -1);
  EXPECT_EQ(Run({"/bin/true\0"s}), -1);
}

TEST_F(OrbaCoreWrapperRunCommandTest, GivesTheArgumentsExactly) {
  const std::vector<std::string> given = {"",    "a b",       "\"quoted\"", "it's", "$HOME",    "`id`", "*",
                                          "\\n", "line\nend", " ",          "-x",   "; exit 9", "",     "\xFF\xC3"};
  std::vector<std::string> args = {"/bin/sh", "-c", R"(for a; do printf '<%s>' "$a"; done > "$0")", out_};
  args.insert(args.end(), given.begin(), given.end());
  EXPECT_EQ(Run(args), 0);
  std::string expected;
  for (const std::string& argument : given) {
    expected += "<" + argument + ">";
  }
  EXPECT_EQ(Out(), expected);
}

TEST_F(OrbaCoreWrapperRunCommandTest, GivesTheEnvironmentAndTheFolder) {
  ASSERT_EQ(setenv("ORBAMIRA_TEST", "here", 1), 0);
  EXPECT_EQ(RunScript(R"({ echo $ORBAMIRA_TEST; pwd -P; } > "$0")"), 0);
  EXPECT_EQ(Out(), "here\n" + fs::canonical(fs::current_path()).string() + "\n");
}

TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsTheStatusWhenSigchldIsIgnored) {
  const ScopedSigchld ignored(SIG_IGN, 0);
  EXPECT_EQ(RunScript("exit 3"), 3);
  EXPECT_EQ(RunScript("kill -9 $$"), -9);
}

TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsTheStatusWhenChildrenAreNotKept) {
  const ScopedSigchld not_kept(SIG_DFL, SA_NOCLDWAIT);
  EXPECT_EQ(RunScript("exit 3"), 3);
}

TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsTheStatusWhenAHandlerReapsEveryChild) {
  const ScopedSigchld reaps(
      [](int) {
        const int error = errno;
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        errno = error;
      },
      0);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(RunScript("exit 3"), 3);
  }
}

TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsTheStatusWhenAThreadReapsEveryChild) {
  std::atomic<bool> done = false;
  std::thread reaper([&] {
    while (!done) {
      waitpid(-1, nullptr, WNOHANG);
      std::this_thread::yield();
    }
  });
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(RunScript("exit 3"), 3);
  }
  done = true;
  reaper.join();
}

TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsTheStatusWhereNoCloneChildCanBeMade) {
  test::Forked host([&] {
    test::FailCloneChildren();
    const ScopedSigchld ignored(SIG_IGN, 0);
    return RunScript("exit 3");
  });
  EXPECT_EQ(host.Wait(), 3);
}

TEST_F(OrbaCoreWrapperRunCommandTest, SendsTheHostNoSigchld) {
  static std::atomic<int> received;
  received = 0;
  const ScopedSigchld counts([](int) { ++received; }, SA_RESTART);
  EXPECT_EQ(RunScript("exit 3"), 3);
  EXPECT_EQ(received, 0);
}

TEST_F(OrbaCoreWrapperRunCommandTest, LeavesTheHostsChildrenAlone) {
  test::Forked child([] { return 7; });
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(RunScript("exit 3"), 3);
  EXPECT_EQ(child.Wait(), 7);
}

TEST_F(OrbaCoreWrapperRunCommandTest, LeavesNoChildBehind) {
  EXPECT_EQ(RunScript("exit 3"), 3);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG | __WALL), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(OrbaCoreWrapperRunCommandTest, LeavesTheHostsSignalsAsTheyWere) {
  const ScopedSigchld ignored(SIG_IGN, 0);
  sigset_t set;
  sigset_t before;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR2);
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &set, &before), 0);
  EXPECT_EQ(RunScript("exit 3"), 3);
  sigset_t after;
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, &after), 0);
  for (int signal = 1; signal < SIGRTMIN; ++signal) {
    EXPECT_EQ(sigismember(&after, signal), signal == SIGUSR2 ? 1 : 0) << signal;
  }
  struct sigaction action {};
  sigaction(SIGCHLD, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_IGN);
}

TEST_F(OrbaCoreWrapperRunCommandTest, StartsTheProgramWithDefaultSignals) {
  test::Forked host([&] {
    for (const int signal : {SIGCHLD, SIGPIPE, SIGINT, SIGTERM, SIGRTMIN}) {
      if (std::signal(signal, SIG_IGN) == SIG_ERR) {
        return 98;
      }
    }
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    return RunScript(R"(exec grep -E '^Sig(Blk|Ign)' /proc/self/status > "$0")");
  });
  EXPECT_EQ(host.Wait(), 0);
  // The C library keeps signals 32 and 33 for itself and leaves them ignored in a spawned program.
  EXPECT_THAT(Out(), testing::MatchesRegex("SigBlk:\t0000000000000000\nSigIgn:\t0000000[01][08]0000000\n"));
}

TEST_F(OrbaCoreWrapperRunCommandTest, GivesDevNullAsStandardInput) {
  test::Forked host([&] {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0 || dup2(ends[0], STDIN_FILENO) != STDIN_FILENO) {
      return 98;
    }
    return RunScript(R"(readlink /proc/$$/fd/0 > "$0"; cat >> "$0")");
  });
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_EQ(Out(), "/dev/null\n");
}

TEST_F(OrbaCoreWrapperRunCommandTest, LetsTheProgramWriteToTheHostsStreams) {
  test::Forked host([&] {
    const int out = open(out_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    return RunScript("echo out; echo err >&2");
  });
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_EQ(Out(), "out\nerr\n");
}

TEST_F(OrbaCoreWrapperRunCommandTest, GivesDevNullForStreamsThatTheHostHasClosed) {
  test::Forked host([&] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    return RunScript("for fd in 0 1 2; do test \"$(readlink /proc/$$/fd/$fd)\" = /dev/null || exit 1; done");
  });
  EXPECT_EQ(host.Wait(), 0);
}

TEST_F(OrbaCoreWrapperRunCommandTest, DoesNotLetTheProgramWriteToAFileOfTheHostsOwn) {
  test::Forked host([&] {
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    const int own = open(out_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    return own == STDOUT_FILENO ? RunScript("echo out && echo err >&2") : 98;
  });
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_EQ(Out(), "");
}

TEST_F(OrbaCoreWrapperRunCommandTest, GivesTheProgramNoOtherDescriptor) {
  test::Forked host([&] {
    const int leaked = open("/dev/zero", O_RDONLY);  // NOLINT(android-cloexec-open)
    const int out = open(out_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (dup2(leaked, 57) != 57 || dup2(leaked, 500) != 500 || dup2(out, STDOUT_FILENO) != STDOUT_FILENO) {
      return 98;
    }
    return RunScript("ls /proc/$$/fd; true");
  });
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_EQ(Out(), "0\n1\n2\n");
}

// The supervisor then sees no parent, which it took for one that has died.
TEST_F(OrbaCoreWrapperRunCommandTest, ReturnsTheStatusWhenTheHostHasUnsharedItsProcessNamespace) {
  test::Forked host([&] {
    if (unshare(CLONE_NEWPID | (geteuid() == 0 ? 0 : CLONE_NEWUSER)) != 0) {
      return test::kMayNotUnshare;
    }
    return RunScript("sleep 0 && exit 7");
  });
  const int result = host.Wait();
  if (result == test::kMayNotUnshare) {
    GTEST_SKIP() << "may not unshare the process namespace";
  }
  EXPECT_EQ(result, 7);
}

TEST_F(OrbaCoreWrapperRunCommandTest, MayBeCalledFromSeveralThreads) {
  std::vector<std::thread> threads;
  threads.reserve(8);
  std::atomic<int> wrong = 0;
  for (int number = 0; number < 8; ++number) {
    threads.emplace_back([this, number, &wrong] {
      for (int i = 0; i < 10; ++i) {
        const int status = 20 * number + i;
        wrong += RunScript("exit " + std::to_string(status)) == status ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

// The copy of the host may find any lock of it taken, that of the memory allocator first of all.
TEST_F(OrbaCoreWrapperRunCommandTest, WorksWhileOtherThreadsTakeMemory) {
  std::atomic<bool> done = false;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&] {
      while (!done) {
        const std::vector<std::string> texts(100, std::string(1000, 'x'));
      }
    });
  }
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(RunScript("exit 3"), 3);
  }
  done = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// What happens to the host while a program runs: the program says that it has started and goes on when it is told.
class OrbaCoreWrapperRunningTest : public OrbaCoreWrapperRunCommandTest {
 protected:
  OrbaCoreWrapperRunningTest() {
    EXPECT_EQ(mkfifo(started_.c_str(), 0600), 0);
    EXPECT_EQ(mkfifo(go_on_.c_str(), 0600), 0);
  }

  int RunUntilTold() { return Run({"/bin/sh", "-c", R"(echo > "$0"; read line < "$1"; exit 5)", started_, go_on_}); }
  void AwaitStart() { test::ReadFile(started_); }
  void Tell() { std::ofstream(go_on_) << "go on\n"; }

  const std::string started_ = folder_.File("started");
  const std::string go_on_ = folder_.File("go_on");
};

TEST_F(OrbaCoreWrapperRunningTest, TheHostsSignalsAreHandled) {
  static sem_t handled;
  ASSERT_EQ(sem_init(&handled, 0, 0), 0);
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) { sem_post(&handled); };  // without SA_RESTART: the wait is interrupted
  ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
  std::atomic<int> status = 0;
  std::thread caller([&] { status = RunUntilTold(); });
  AwaitStart();
  pthread_kill(caller.native_handle(), SIGUSR1);
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 20;
  EXPECT_EQ(sem_timedwait(&handled, &deadline), 0);
  Tell();
  caller.join();
  EXPECT_EQ(status, 5);
  sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(OrbaCoreWrapperRunningTest, AnotherThreadMayChangeTheUser) {
  std::atomic<int> status = 0;
  std::thread caller([&] { status = RunUntilTold(); });
  AwaitStart();
  EXPECT_EQ(setuid(getuid()), 0);  // every thread of the process takes part in it
  Tell();
  caller.join();
  EXPECT_EQ(status, 5);
}

TEST_F(OrbaCoreWrapperRunningTest, ALockOfAHostThatIsKilledIsFree) {
  const std::string lock_path = folder_.File("lock");
  test::Forked host([&] {
    const store::FileLock lock(lock_path);
    return RunUntilTold();
  });
  AwaitStart();
  const int fd = open(lock_path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), -1);
  kill(host.pid(), SIGKILL);
  EXPECT_EQ(host.Wait(), -SIGKILL);
  EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
  close(fd);
}

// The program of a host that is killed; the script writes its own number into the FIFO "$0" once it runs.
class OrbaCoreWrapperKilledHostTest : public OrbaCoreWrapperRunningTest {
 protected:
  // Whether the program ended within a time that only a hang exceeds.
  bool EndsWithItsHost(const std::string& script) {
    test::Forked host([&] { return Run({"/bin/sh", "-c", script, started_, out_, go_on_}); });
    const pid_t program = std::stoi(test::ReadFile(started_));
    pollfd ended = {static_cast<int>(syscall(SYS_pidfd_open, program, 0)), POLLIN, 0};
    EXPECT_GE(ended.fd, 0);
    kill(host.pid(), SIGKILL);
    EXPECT_EQ(host.Wait(), -SIGKILL);
    const bool has_ended = poll(&ended, 1, 60'000) == 1;
    close(ended.fd);
    return has_ended;
  }
};

TEST_F(OrbaCoreWrapperKilledHostTest, TheProgramIsEnded) {
  EXPECT_TRUE(EndsWithItsHost(R"(echo $$ > "$0"; exec sleep 600)"));
}

// Nobody waits for the program any more, though the process lives on.
TEST_F(OrbaCoreWrapperRunningTest, TheProgramOfAHostThatBecomesAnotherIsEnded) {
  test::Forked host([&] {
    std::thread([&] { RunUntilTold(); }).detach();
    AwaitStart();
    // The supervisor is a child of the new program, which ends with 0 once all have ended, or by the alarm.
    const std::string wait =
        "import os, signal\nsignal.alarm(60)\ntry:\n  while True: os.waitpid(-1, 0x40000000)\nexcept "
        "ChildProcessError: pass";
    return execl("/usr/bin/python3", "python3", "-c", wait.c_str(), nullptr);
  });
  EXPECT_EQ(host.Wait(), 0);
}

TEST_F(OrbaCoreWrapperKilledHostTest, TheProgramIsAskedFirst) {
  EXPECT_TRUE(EndsWithItsHost(R"(trap 'echo asked > "$1"; exit' TERM; echo $$ > "$0"; read line < "$2")"));
  EXPECT_EQ(Out(), "asked\n");
}

TEST_F(OrbaCoreWrapperKilledHostTest, AProgramThatDoesNotEndIsKilled) {
  EXPECT_TRUE(EndsWithItsHost(R"(trap '' TERM; echo $$ > "$0"; exec sleep 600)"));
}

}  // namespace
}  // namespace orbamira::wrapper
