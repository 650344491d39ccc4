#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/constants.h"
#include "platform/orba_core_wrapper.h"
#include "platform/posix/unique_fd.h"
#include "tests/support/error_text.h"
#include "tests/support/forked.h"
#include "tests/support/process.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"
#include "tools/orba-plugins/children.h"
#include "tools/orba-plugins/failure.h"
#include "tools/orba-plugins/guard.h"
#include "tools/orba-plugins/plugin_run.h"
#include "tools/orba-plugins/signals.h"

namespace orbamira::plugins {
namespace {

namespace fs = std::filesystem;

TEST(PluginRunTest, APluginGoneSinceItWasListedCannotBeStarted) {
  Signals signals;
  const std::string plugin = (test::Root() / "gone").string();
  try {
    RunPlugin(plugin, {}, 60, signals);
    FAIL() << "it ran";
  } catch (const PluginFailure& failure) {
    EXPECT_EQ(failure.what(), plugin + ": cannot be started: " + test::ErrorText(ENOENT));
  }
}

/// Runs scripts as plugins in this process.
class PluginScriptTest : public testing::Test {
 protected:
  PluginScriptTest() { AdoptOrphans(); }

  std::string Script(const std::string& text) const {
    std::string path = dir_.File("script");
    test::WriteFile(path, text);
    fs::permissions(path, fs::perms(0755));
    return path;
  }

  std::string OutputOf(const std::string& plugin, const std::function<void(std::string_view)>& watch = nullptr) {
    std::string output;
    RunPlugin(plugin, {}, kLongest, signals_, [&](std::string_view piece) {
      output += piece;
      if (watch) {
        watch(piece);
      }
      return true;
    });
    return output;
  }

  std::string ErrorOf(const std::string& plugin) {
    try {
      RunPlugin(plugin, {}, kLongest, signals_);
    } catch (const PluginFailure& failure) {
      return failure.what();
    }
    return "";
  }

  static constexpr double kLongest = 600;
  test::TempDir dir_;
  Signals signals_;
};

TEST_F(PluginScriptTest, OneThatCannotBeStartedLeavesNoProcess) {
  const std::string plugin = Script("#!/missing/interpreter\n");
  EXPECT_EQ(ErrorOf(plugin), plugin + ": cannot be started: " + test::ErrorText(ENOENT));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(PluginScriptTest, WithoutPipesForItsOutputItCannotBeStarted) {
  const std::string plugin = Script("#!/bin/sh\n");
  std::string error;
  test::WithFailingCall(SYS_pipe2, EMFILE, [&] { error = ErrorOf(plugin); });
  EXPECT_EQ(error, plugin + ": cannot be started: " + test::ErrorText(EMFILE));
}

TEST_F(PluginScriptTest, WithoutAProcessForItItCannotBeStarted) {
  const std::string plugin = Script("#!/bin/sh\n");
  std::string error;
  test::WithFailingCall(SYS_clone, EAGAIN, [&] { error = ErrorOf(plugin); });
  EXPECT_EQ(error, plugin + ": cannot be started: " + test::ErrorText(EAGAIN));
}

TEST_F(PluginScriptTest, ItLeadsAGroupWhereItStartsBeforeItsParentGoesOn) {
  const std::string plugin = Script("#!/bin/sh\nexec cut -d ' ' -f 1,5 /proc/self/stat\n");
  std::string numbers;
  std::thread([&] {
    test::FailGroupsOfChildren();
    numbers = OutputOf(plugin);
  }).join();
  const std::string process = numbers.substr(0, numbers.find(' '));
  EXPECT_EQ(numbers, process + " " + process + "\n");
}

TEST_F(PluginScriptTest, ASingleByteIsNotTheEndOfItsOutput) {
  const std::string taken = dir_.File("taken");
  ASSERT_EQ(mkfifo(taken.c_str(), 0600), 0);
  const UniqueFd tell = OpenFile(taken, O_RDWR);
  const std::string plugin = Script("#!/bin/sh\nprintf a; read line < " + taken + "; echo b\n");
  EXPECT_EQ(OutputOf(plugin,
                     [&](std::string_view piece) {
                       if (piece == "a") {
                         EXPECT_EQ(write(tell.get(), "\n", 1), 1);
                       }
                     }),
            "ab\n");
}

TEST_F(PluginScriptTest, NoSignalIsKeptFromIt) {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  const std::string zeros(16, '0');
  EXPECT_EQ(OutputOf(Script("#!/bin/sh\nexec grep -E '^Sig(Blk|Ign)' /proc/self/status\n")),
            "SigBlk:\t" + zeros + "\nSigIgn:\t" + zeros + "\n");
}

/// A program that makes its pipe as large as the system lets it, leaves as much there and ends.
std::string Flood(const std::string& stream, const std::string& text) {
  constexpr const char* kSetPipeSize = "1031";
  return "#!/usr/bin/python3\nimport contextlib, fcntl, os\nwith contextlib.suppress(OSError):\n    fcntl.fcntl(" +
         stream + ", " + kSetPipeSize + ", 1 << 20)\nos.write(" + stream + ", " + text + ")\n";
}

TEST_F(PluginScriptTest, AllThatItLeavesInThePipeIsRead) {
  EXPECT_EQ(OutputOf(Script(Flood("1", "b'x' * (1 << 20)"))).size(), std::size_t{1} << 20U);
}

TEST_F(PluginScriptTest, ALastLineWithoutAnEndIsReadToo) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(ErrorOf(Script(Flood("2", "b'\\n' * 1000000 + b'last'"))), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "script: last\n");
}

/// The processor time that a wait of a second may take; one that goes in a circle takes what it gets.
constexpr double kAsleep = 0.2;

/// The processor time of this thread, in seconds.
double OwnTime() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

TEST_F(PluginScriptTest, ItIsWaitedForAsleepWhetherItClosesItsOutputOrNot) {
  for (const std::string streams : {"", "exec >&- 2>&-\n"}) {
    const std::string plugin = Script("#!/bin/sh\n" + streams + "exec sleep 1\n");
    const double begin = OwnTime();
    EXPECT_EQ(ErrorOf(plugin), "");
    EXPECT_LT(OwnTime() - begin, kAsleep) << streams;
  }
}

TEST_F(PluginScriptTest, WhatItLeavesBehindIsAskedOnceToEnd) {
  const std::string asked = dir_.File("asked");
  const std::string hold = dir_.File("hold");
  const std::string ready = dir_.File("ready");
  ASSERT_EQ(mkfifo(hold.c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(ready.c_str(), 0600), 0);
  const UniqueFd holder = OpenFile(hold, O_RDWR);
  // It takes several times as long to end as there is between two looks at it.
  test::WriteFile(dir_.File("left"), "trap 'echo asked >> " + asked + "; sleep 0.2; exit' TERM\necho > " + ready +
                                         "\nread line < " + hold + "\n");
  EXPECT_EQ(ErrorOf(Script("#!/bin/sh\nsetsid sh " + dir_.File("left") + " &\nread line < " + ready + "\n")), "");
  EXPECT_EQ(test::ReadFile(asked), "asked\n");
}

// What left its group is asked after it.
TEST_F(PluginScriptTest, WhoIsEndedIsAskedOnceEach) {
  const std::string asked = dir_.File("asked");
  const std::string left_asked = dir_.File("left_asked");
  const std::string hold = dir_.File("hold");
  const std::string ready = dir_.File("ready");
  ASSERT_EQ(mkfifo(hold.c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(ready.c_str(), 0600), 0);
  const UniqueFd holder = OpenFile(hold, O_RDWR);
  // It takes several times as long to end as there is between two looks at it.
  const auto script = [&](const std::string& file, const std::string& words) {
    return "trap 'echo asked >> " + file + "; sleep 0.2; exit' TERM\n" + words + "\nread line < " + hold + "\n";
  };
  test::WriteFile(dir_.File("left"), script(left_asked, "echo > " + ready));
  const std::string plugin = Script(
      "#!/bin/sh\n" + script(asked, "setsid sh " + dir_.File("left") + " &\nread line < " + ready + "\necho enough"));
  EXPECT_THROW(RunPlugin(plugin, {}, kLongest, signals_, [](std::string_view) { return false; }), PluginFailure);
  EXPECT_EQ(test::ReadFile(asked), "asked\n");
  EXPECT_EQ(test::ReadFile(left_asked), "asked\n");
}

TEST(PluginGuardTest, WaitsAsleepForTheWorkAndForWhatItLeft) {
  const auto work = [] {
    static_cast<void>(std::signal(SIGTERM, SIG_IGN));
    sleep(1);
    if (fork() == 0) {
      execlp("sleep", "sleep", "1", nullptr);
    }
    return 0;
  };
  test::Forked process([&] {
    Signals signals;
    const int status = RunGuarded(signals, work);
    return status == 0 && OwnTime() < kAsleep ? 0 : 1;
  });
  EXPECT_EQ(process.Wait(), 0);
}

TEST(PluginGuardTest, WithoutAProcessForTheWorkNothingRuns) {
  test::Forked process([] {
    test::FailSystemCall(SYS_clone, EAGAIN);
    Signals signals;
    try {
      return RunGuarded(signals, [] { return 1; });
    } catch (const std::system_error& error) {
      return error.code().value() == EAGAIN ? 0 : 2;
    }
  });
  EXPECT_EQ(process.Wait(), 0);
}

TEST(PluginSignalsTest, AreAllAtTheirDefaultsAfterAReset) {
  test::Forked process([] {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    for (int number = 1; number < NSIG; ++number) {
      static_cast<void>(std::signal(number, SIG_IGN));
    }
    Signals::Reset();
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, nullptr, &blocked);
    for (int number = 1; number < NSIG; ++number) {
      struct sigaction action = {};
      if (sigaction(number, nullptr, &action) == 0 &&
          (action.sa_handler != SIG_DFL || sigismember(&blocked, number) == 1)) {
        return number;
      }
    }
    return 0;
  });
  EXPECT_EQ(process.Wait(), 0);
}

/// The program under the name of one of its roles, in a root folder with a FIFO that plugins can wait on.
class OrbaPluginsTest : public testing::Test {
 protected:
  OrbaPluginsTest() {
    fs::remove_all(path::kPluginFolder);
    EXPECT_EQ(mkfifo(hold_.c_str(), 0600), 0);
    holder_ = OpenFile(hold_, O_RDWR);
  }

  static fs::path Program(const std::string& role) { return fs::path(ORBA_PLUGINS).replace_filename(role); }

  static test::ProcessResult Notify(const test::ProcessOptions& options = {}) {
    return test::RunProgram({Program("notify-plugins"), "--event", "install", "--package", "p", "--timing", "pre",
                             "--version", "1", "--status", "INSTALL"},
                            options);
  }

  static std::string AddPlugin(const std::string& name, const std::string& body) {
    const fs::path plugin = fs::path(path::kPluginFolder) / name;
    test::WriteFile(plugin, "#!/bin/sh\n" + body + "\n");
    fs::permissions(plugin, fs::perms(0755));
    return plugin;
  }

  /// What the program says when a system call fails.
  static std::string SaysWithout(int call, int error) {
    test::ProcessOptions options;
    options.before_exec = [=] { test::FailSystemCall(call, error); };
    const test::ProcessResult result = Notify(options);
    EXPECT_TRUE(result.Exited(1)) << result;
    return result.err;
  }

  test::TempDir dir_;
  std::string hold_ = dir_.File("hold");
  std::string log_ = dir_.File("log");
  UniqueFd holder_;
};

TEST_F(OrbaPluginsTest, WrongUsageOfEachRoleIsToldAndRunsNothing) {
  AddPlugin("a", "echo run >> " + log_);
  const std::vector<std::string> step = {"--event", "install",   "--package", "p",        "--timing",
                                         "pre",     "--version", "1",         "--status", "INSTALL"};
  const auto expect_usage = [](const std::string& role, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), Program(role));
    const test::ProcessResult result = test::RunProgram(arguments);
    EXPECT_TRUE(result.Exited(64)) << result;
    EXPECT_EQ(result.err.rfind("Usage: " + role + " ", 0), 0U) << result;
  };
  expect_usage("notify-plugins", {});
  for (std::size_t i = 0; i < step.size(); i += 2) {
    std::vector<std::string> wrong = step;
    wrong[i] = step[(i + 2) % step.size()];
    expect_usage("notify-plugins", wrong);
    wrong.erase(wrong.begin(), wrong.begin() + 2);
    expect_usage("notify-plugins", wrong);
  }
  expect_usage("list-app-ids", {});
  expect_usage("list-app-ids", {"--file"});
  expect_usage("list-app-ids", {"a", "b"});
  expect_usage("check-health", {"relative"});
  EXPECT_FALSE(fs::exists(log_));
}

TEST_F(OrbaPluginsTest, AnotherNameIsNoRole) {
  const test::ProcessResult result = test::RunProgram({ORBA_PLUGINS});
  EXPECT_TRUE(result.Exited(64)) << result;
  for (const std::string role : {"notify-plugins", "list-app-ids", "check-health"}) {
    EXPECT_NE(result.err.find("Usage: " + role), std::string::npos) << result;
  }
}

TEST_F(OrbaPluginsTest, AReaderOfItsMessagesThatWentAwayDecidesNothing) {
  test::ProcessOptions options;
  options.before_exec = [] {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) == 0) {
      close(ends[0]);
      dup2(ends[1], STDERR_FILENO);
    }
  };
  const test::ProcessResult result = test::RunProgram({Program("list-app-ids")}, options);
  EXPECT_TRUE(result.Exited(64)) << result;
}

TEST_F(OrbaPluginsTest, RunsPluginsWithoutStandardDescriptorsAndWithoutSignalsOfChildren) {
  AddPlugin("a", "echo to nobody; exit 7");
  AddPlugin("b", "readlink /proc/self/fd/0 >> " + log_);
  test::ProcessOptions options;
  options.before_exec = [] {
    static_cast<void>(std::signal(SIGCHLD, SIG_IGN));
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      close(fd);
    }
  };
  EXPECT_TRUE(Notify(options).Exited(1));
  EXPECT_EQ(test::ReadFile(log_), "/dev/null\n");
}

TEST_F(OrbaPluginsTest, RunsNoPluginThatItCouldNotEnd) {
  AddPlugin("a", "echo run >> " + log_);
  EXPECT_EQ(SaysWithout(SYS_signalfd4, EMFILE),
            "notify-plugins: cannot wait for signals: " + test::ErrorText(EMFILE) + "\n");
  EXPECT_EQ(SaysWithout(SYS_prctl, EPERM),
            "notify-plugins: cannot adopt what plugins leave behind: " + test::ErrorText(EPERM) + "\n");
  EXPECT_FALSE(fs::exists(log_));
}

TEST_F(OrbaPluginsTest, WhatAPluginLeavesBehindHasEndedBeforeTheNextBegins) {
  const std::string left = dir_.File("left");
  AddPlugin("a",
            "(setsid sh -c 'echo $$ > " + left + "; exec cat " + hold_ + "' &); until [ -s " + left + " ]; do :; done");
  AddPlugin("b", "kill -0 $(cat " + left + ") || echo gone >> " + log_);
  EXPECT_TRUE(Notify().Exited(0));
  EXPECT_EQ(test::ReadFile(log_), "gone\n");
}

TEST_F(OrbaPluginsTest, ASignalEndsThePluginAndIsTold) {
  const std::string ready = dir_.File("ready");
  ASSERT_EQ(mkfifo(ready.c_str(), 0600), 0);
  AddPlugin("a", "echo $$ > " + ready + "; exec cat " + hold_);
  AddPlugin("b", "echo run >> " + log_);
  test::ProcessResult result;
  std::thread notify([&] { result = Notify(); });
  const pid_t plugin = std::stoi(test::ReadFile(ready));
  const auto parent_of = [](pid_t process) {
    const std::string status = test::ReadFile("/proc/" + std::to_string(process) + "/stat");
    return static_cast<pid_t>(std::stol(status.substr(status.rfind(')') + 4)));
  };
  kill(parent_of(parent_of(plugin)), SIGTERM);
  notify.join();
  EXPECT_TRUE(result.Exited(128 + SIGTERM)) << result;
  EXPECT_FALSE(fs::exists(log_));
}

TEST(PluginsOfAKilledHostTest, EndWithAllThatTheyStarted) {
  const test::TempDir folder;
  const std::string alive = folder.File("alive");  // open for writing in all that the plugin starts
  const std::string hold = folder.File("hold");    // what these read from, until the test has ended
  const std::string ready = folder.File("ready");
  for (const std::string& fifo : {alive, hold, ready}) {
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  }
  const UniqueFd writers = OpenFile(alive, O_RDONLY);
  const UniqueFd holder = OpenFile(hold, O_RDWR);
  const fs::path plugin = fs::path(path::kPluginFolder) / "a";
  test::WriteFile(plugin, "#!/bin/sh\nexec 9> " + alive + "\n(setsid sh -c 'cat " + hold + " & wait' &)\necho > " +
                              ready + "\nexec cat " + hold + "\n");
  fs::permissions(plugin, fs::perms(0755));
  fs::create_directories(fs::path(path::kNotifyPluginPyPath).parent_path());
  fs::create_symlink(ORBA_PLUGINS, path::kNotifyPluginPyPath);

  test::Forked host([] {
    return wrapper::OrbaCoreWrapper().RunCommand({path::kNotifyPluginPyPath, "--event", "install", "--package", "p",
                                                  "--timing", "pre", "--version", "1", "--status", "INSTALL"});
  });
  test::ReadFile(ready);
  kill(host.pid(), SIGKILL);
  EXPECT_EQ(host.Wait(), -SIGKILL);
  pollfd ended{writers.get(), 0, 0};
  EXPECT_EQ(poll(&ended, 1, 60'000), 1);
}

}  // namespace
}  // namespace orbamira::plugins
