#include "platform/file_lock.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/orba_core_wrapper.h"
#include "tests/support/await.h"
#include "tests/support/error_text.h"
#include "tests/support/forked.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira::store {
namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;

// Whether another descriptor could take the lock at this moment.
bool IsFree(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  const bool is_free = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0;
  close(fd);
  return is_free;
}

// Whether the thread waits in the kernel for a lock. Its wait is the condition that a test waits for.
bool WaitsForLock(pid_t process) {
  return test::ReadFile("/proc/locks").find("-> FLOCK  ADVISORY  WRITE " + std::to_string(process) + " ") !=
         std::string::npos;
}

void AwaitWaiter(pid_t process) {
  test::Await([process] { return WaitsForLock(process); });
}

std::string ErrorOf(const std::string& path) {
  try {
    const FileLock lock(path);
    return "";
  } catch (const std::system_error& error) {
    return error.what();
  }
}

class FileLockTest : public testing::Test {
 protected:
  test::TempDir folder_;
  const std::string path_ = folder_.File("lock");
};

TEST_F(FileLockTest, HoldsTheLockForItsLife) {
  {
    const FileLock lock(path_);
    EXPECT_FALSE(IsFree(path_));
  }
  EXPECT_TRUE(IsFree(path_));
}

TEST_F(FileLockTest, GivesTheLockBackWhenAnExceptionPasses) {
  try {
    const FileLock lock(path_);
    throw 1;
  } catch (int) {
  }
  EXPECT_TRUE(IsFree(path_));
}

TEST_F(FileLockTest, ASecondProcessWaitsUntilTheFirstIsDone) {
  std::optional<FileLock> lock(path_);
  test::Forked other([&] {
    const FileLock second(path_);
    return 7;
  });
  AwaitWaiter(other.pid());
  lock.reset();
  EXPECT_EQ(other.Wait(), 7);
}

TEST_F(FileLockTest, TwoObjectsInOneProcessExcludeEachOther) {
  int counter = 0;
  const auto count = [&] {
    for (int i = 0; i < 200; ++i) {
      const FileLock lock(path_);
      const int before = std::atomic_ref(counter).load();
      std::this_thread::yield();
      std::atomic_ref(counter).store(before + 1);
    }
  };
  std::thread first(count);
  std::thread second(count);
  first.join();
  second.join();
  EXPECT_EQ(counter, 400);
}

TEST_F(FileLockTest, TheKernelGivesTheLockOfAKilledProcessBack) {
  std::array<int, 2> ready{};
  ASSERT_EQ(pipe(ready.data()), 0);
  test::Forked holder([&] {
    const FileLock lock(path_);
    if (write(ready[1], "x", 1) != 1) {
      return 1;
    }
    return pause();
  });
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_FALSE(IsFree(path_));
  kill(holder.pid(), SIGKILL);
  EXPECT_EQ(holder.Wait(), -SIGKILL);
  EXPECT_TRUE(IsFree(path_));
  close(ready[0]);
  close(ready[1]);
}

TEST_F(FileLockTest, AWaiterGetsTheLockOfAKilledProcess) {
  std::optional<FileLock> lock(path_);
  test::Forked holder([&] {
    const FileLock mine(path_);
    return pause();
  });
  AwaitWaiter(holder.pid());
  lock.reset();
  const auto held = [&] { return !IsFree(path_); };
  test::Await(held);
  test::Forked next([&] {
    const FileLock mine(path_);
    return 7;
  });
  AwaitWaiter(next.pid());
  kill(holder.pid(), SIGKILL);
  EXPECT_EQ(next.Wait(), 7);
  EXPECT_EQ(holder.Wait(), -SIGKILL);
}

// What the holder ran may live on for a while: once the program has started, nothing of the lock is left to it.
class ProgramOfTheHolder {
 public:
  ProgramOfTheHolder(const std::string& lock_path, const std::string& pid_file,
                     const std::function<int(const std::string& shell_text)>& run)
      : holder_([&] {
          const FileLock lock(lock_path);
          return run("echo $$ > '" + pid_file + ".new' && mv '" + pid_file + ".new' '" + pid_file +
                     "' && exec sleep 600");
        }) {
    test::Await([&] { return fs::exists(pid_file); });
    program_ = std::stoi(test::ReadFile(pid_file));
  }

  [[nodiscard]] pid_t program() const { return program_; }

  int KillHolder() {
    kill(holder_.pid(), SIGKILL);
    return holder_.Wait();
  }

 private:
  test::Forked holder_;
  pid_t program_ = 0;
};

TEST_F(FileLockTest, AProgramThatOutlivesTheHolderDoesNotKeepTheLock) {
  ProgramOfTheHolder running(path_, folder_.File("pid"), [](const std::string& shell_text) {
    if (fork() == 0) {
      execl("/bin/sh", "sh", "-c", shell_text.c_str(), nullptr);
      _exit(127);
    }
    return pause();
  });
  EXPECT_FALSE(IsFree(path_));
  EXPECT_EQ(running.KillHolder(), -SIGKILL);
  EXPECT_TRUE(IsFree(path_));
  EXPECT_EQ(kill(running.program(), SIGKILL), 0) << "it was to outlive the holder";
}

// RunCommand ends the program after its caller's death, but not before the caller is gone.
TEST_F(FileLockTest, ACommandThatTheHolderRanDoesNotKeepTheLock) {
  ProgramOfTheHolder running(path_, folder_.File("pid"), [](const std::string& shell_text) {
    return wrapper::OrbaCoreWrapper().RunCommand({"/bin/sh", "-c", shell_text});
  });
  EXPECT_FALSE(IsFree(path_));
  EXPECT_EQ(running.KillHolder(), -SIGKILL);
  EXPECT_TRUE(IsFree(path_));
  test::Await([&] { return kill(running.program(), 0) != 0; });
}

TEST_F(FileLockTest, AProcessForkedMeanwhileDoesNotKeepTheLock) {
  std::array<int, 2> done{};
  ASSERT_EQ(pipe(done.data()), 0);
  std::optional<FileLock> lock(path_);
  test::Forked copy([&] {
    close(done[1]);
    char byte = 0;
    return static_cast<int>(read(done[0], &byte, 1));
  });
  lock.reset();
  EXPECT_TRUE(IsFree(path_));
  close(done[1]);
  EXPECT_EQ(copy.Wait(), 0);
  close(done[0]);
}

TEST_F(FileLockTest, IsNotInheritedByAProgram) {
  const FileLock lock(path_);
  std::vector<int> inherited;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    if (fs::read_symlink(entry.path(), ignored) == path_) {
      inherited.push_back(fcntl(std::stoi(entry.path().filename()), F_GETFD));
    }
  }
  EXPECT_THAT(inherited, testing::ElementsAre(FD_CLOEXEC));
}

TEST_F(FileLockTest, KeepsClearOfTheStandardStreams) {
  test::Forked host([&] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    const FileLock lock(path_);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      if (fcntl(stream, F_GETFD) != -1) {
        return 1;
      }
    }
    return IsFree(path_) ? 2 : 0;
  });
  EXPECT_EQ(host.Wait(), 0);
}

TEST_F(FileLockTest, MakesTheFileForOwnerAndGroupWhateverTheUmask) {
  const mode_t before = umask(0077);
  { const FileLock lock(folder_.File("deep/er/lock")); }
  umask(before);
  EXPECT_EQ(fs::status(folder_.path() / "deep/er/lock").permissions(), fs::perms(0660));
  EXPECT_EQ(fs::status(folder_.path() / "deep/er").permissions(), fs::perms(0755));
  EXPECT_EQ(fs::status(folder_.path() / "deep").permissions(), fs::perms(0755));
}

TEST_F(FileLockTest, MakesTheFolderWithoutProc) {
  test::Forked inside([&] {
    if (!test::EnterRoot(folder_.path())) {
      return test::kMayNotUnshare;
    }
    const FileLock lock("/run/lock/file");
    return 0;
  });
  const int result = inside.Wait();
  if (result == test::kMayNotUnshare) {
    GTEST_SKIP() << "may not change the root";
  }
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(std::filesystem::is_regular_file(folder_.path() / "run/lock/file"));
}

TEST_F(FileLockTest, LeavesAnExistingFileAsItIs) {
  test::WriteFile(path_, "text");
  fs::permissions(path_, fs::perms(0640));
  { const FileLock lock(path_); }
  EXPECT_EQ(test::ReadFile(path_), "text");
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0640));
}

TEST_F(FileLockTest, IsEnoughToReadTheFile) {
  test::WriteFile(path_, "");
  fs::permissions(test::Root(), fs::perms(0711));
  fs::permissions(folder_.path(), fs::perms(0711));
  fs::permissions(path_, fs::perms(0444));
  test::Forked reader([&] {
    test::BecomeOrdinaryUser();
    const FileLock lock(path_);
    return IsFree(path_) ? 1 : 0;
  });
  EXPECT_EQ(reader.Wait(), 0);
}

TEST_F(FileLockTest, TwoProcessesMayMakeTheFileAtOnce) {
  for (int round = 0; round < 50; ++round) {
    const std::string path = folder_.File(std::to_string(round) + "/lock");
    test::Forked other([&] {
      const FileLock lock(path);
      return 0;
    });
    { const FileLock lock(path); }
    EXPECT_EQ(other.Wait(), 0);
  }
}

TEST_F(FileLockTest, ThrowsWithThePathWhenTheFileCannotBeMade) {
  test::WriteFile(path_, "");
  EXPECT_THAT(ErrorOf(path_ + "/lock"),
              testing::AllOf(HasSubstr(path_ + "/lock"), HasSubstr(test::ErrorText(ENOTDIR))));
  EXPECT_THAT(ErrorOf(path_ + "/a/lock"), testing::AllOf(HasSubstr(path_ + "/a"), HasSubstr(test::ErrorText(ENOTDIR))));
  EXPECT_THAT(ErrorOf(""), HasSubstr(test::ErrorText(ENOENT)));
}

TEST_F(FileLockTest, ThrowsWithThePathWhenTheModeCannotBeSet) {
  test::WithFailingCall(SYS_fchmod, EROFS, [this] {
    EXPECT_EQ(ErrorOf(path_), "set mode of lock file " + path_ + ": " + test::ErrorText(EROFS));
  });
}

TEST_F(FileLockTest, ThrowsWithThePathWhenThereAreNoLocks) {
  test::WithFailingCall(SYS_flock, ENOLCK,
                        [this] { EXPECT_EQ(ErrorOf(path_), "lock " + path_ + ": " + test::ErrorText(ENOLCK)); });
}

// A folder or a pipe in its place is strange, but whoever opens it locks the same thing.
TEST_F(FileLockTest, LocksWhateverStandsThere) {
  fs::create_directory(path_);
  ASSERT_EQ(mkfifo(folder_.File("pipe").c_str(), 0600), 0);
  for (const std::string& path : {path_, folder_.File("pipe")}) {
    {
      const FileLock lock(path);
      test::Forked other([&] { return IsFree(path) ? 1 : 0; });
      EXPECT_EQ(other.Wait(), 0);
    }
    EXPECT_TRUE(IsFree(path));
  }
}

TEST_F(FileLockTest, ThrowsAtALinkToNothing) {
  fs::create_symlink("missing/file", path_);
  EXPECT_THAT(ErrorOf(path_), HasSubstr(path_));
}

TEST_F(FileLockTest, WaitsOnAfterASignal) {
  struct sigaction action {};
  struct sigaction before {};
  static std::atomic<int> handled;
  handled = 0;
  action.sa_handler = [](int) { ++handled; };  // without SA_RESTART: flock fails with EINTR
  ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
  std::optional<FileLock> lock(path_);
  test::Forked other([&] {
    const FileLock second(path_);
    return handled.load();
  });
  AwaitWaiter(other.pid());
  kill(other.pid(), SIGUSR1);
  // The signal has been handled when it is no longer pending.
  const std::string status = "/proc/" + std::to_string(other.pid()) + "/status";
  for (int i = 0; i < 100'000; ++i) {
    if (test::ReadFile(status).find("ShdPnd:\t0000000000000000") != std::string::npos && WaitsForLock(other.pid())) {
      break;
    }
  }
  lock.reset();
  EXPECT_EQ(other.Wait(), 1);
  sigaction(SIGUSR1, &before, nullptr);
}

}  // namespace
}  // namespace orbamira::store
