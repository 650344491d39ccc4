#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/posix/errors.h"
#include "platform/posix/files.h"
#include "platform/posix/flock.h"
#include "platform/posix/remove_tree.h"
#include "platform/posix/sync_folder.h"
#include "platform/posix/trusted_time.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

using test::TempDir;
using testing::StartsWith;

template <typename Action>
std::optional<std::system_error> ErrorOf(Action action) {
  try {
    action();
  } catch (const std::system_error& error) {
    return error;
  }
  return std::nullopt;
}

TEST(ThrowErrnoTest, GivesTheErrorOfTheFailedCall) {
  errno = EACCES;
  const auto error = ErrorOf([] { ThrowErrno("open the file"); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code().value(), EACCES);
  EXPECT_THAT(error->what(), StartsWith("open the file: "));
}

TEST(ThrowErrnoTest, GivesTheErrorNamed) {
  errno = EACCES;
  const auto error = ErrorOf([] { ThrowErrno("open the file", ENOSPC); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code().value(), ENOSPC);
}

TEST(ThrowErrnoTest, NeverThrowsASuccess) {
  const auto error = ErrorOf([] { ThrowErrno("write the file", 0); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code().value(), EIO);
}

class FlockTest : public testing::Test {
 protected:
  [[nodiscard]] Flock Open() const { return Flock(OpenFile(folder_.path(), O_RDONLY | O_DIRECTORY)); }

  /// Whether another opening of the folder can be locked at this moment.
  [[nodiscard]] bool IsFree() const { return Open().TryLock(); }

  TempDir folder_;
};

TEST_F(FlockTest, LocksOnlyWhenAsked) {
  Flock lock = Open();
  EXPECT_TRUE(IsFree());
  EXPECT_TRUE(lock.Lock());
  EXPECT_FALSE(IsFree());
}

TEST_F(FlockTest, LockTakesNoEarlierErrorForItsOwn) {
  Flock lock = Open();
  errno = EINTR;
  EXPECT_TRUE(lock.Lock());
}

TEST_F(FlockTest, TryLockTellsThatAnotherHoldsIt) {
  Flock first = Open();
  ASSERT_TRUE(first.TryLock());
  Flock second = Open();
  EXPECT_FALSE(second.TryLock());
  EXPECT_EQ(errno, EWOULDBLOCK);
}

// A process that a thread of the host has forked meanwhile keeps such a copy.
TEST_F(FlockTest, GivesTheLockBackThoughAnotherDescriptorOfTheFileIsOpen) {
  UniqueFd copy;
  {
    Flock lock = Open();
    ASSERT_TRUE(lock.Lock());
    copy = UniqueFd(fcntl(lock.get(), F_DUPFD_CLOEXEC, 0));
    ASSERT_TRUE(copy.valid());
    ASSERT_FALSE(IsFree());
  }
  EXPECT_TRUE(IsFree());
}

TEST_F(FlockTest, ReleaseKeepsTheLock) {
  UniqueFd file;
  {
    Flock lock = Open();
    ASSERT_TRUE(lock.Lock());
    file = UniqueFd(lock.Release());
  }
  EXPECT_FALSE(IsFree());
  { const Flock adopted(std::move(file)); }
  EXPECT_TRUE(IsFree());
}

TEST(SplitPathTest, SplitPathGivesTheFolderAndTheName) {
  const auto parts_of = [](const std::string& path) {
    const PathParts parts = SplitPath(path);
    return parts.parent + " and " + parts.name;
  };
  EXPECT_EQ(parts_of("name"), ". and name");
  EXPECT_EQ(parts_of("/name"), "/ and name");
  EXPECT_EQ(parts_of("a/b/name//"), "a/b/ and name");
  for (const char* path : {"", "/", ".", "..", "a/.", "a/..", "../"}) {
    EXPECT_THROW(SplitPath(path), std::runtime_error) << path;
  }
}

TEST(DayTextTest, DayTextGivesTheDayOrElseTheNumber) {
  EXPECT_EQ(DayText(0), "1970-01-01");
  EXPECT_EQ(DayText(86'399), "1970-01-01");
  EXPECT_EQ(DayText(86'400), "1970-01-02");
  if constexpr (sizeof(std::time_t) > 4) {
    constexpr auto kNever = std::numeric_limits<std::time_t>::max();
    EXPECT_EQ(DayText(kNever), std::to_string(kNever));
  }
}

TEST(ReadLinkTest, ReadLinkGivesTheTargetAlone) {
  const TempDir folder;
  std::filesystem::create_symlink("target", folder.File("link"));
  EXPECT_EQ(ReadLink(AT_FDCWD, folder.File("link"), "the link"), "target");
  const auto error = ErrorOf([&] { ReadLink(AT_FDCWD, folder.File("missing"), "the link"); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code().value(), ENOENT);
  EXPECT_THAT(error->what(), StartsWith("the link: "));
}

TEST(ListDirectoryTest, ListDirectoryGivesTheNamesSorted) {
  const TempDir folder;
  for (const char* name : {"d", "b", ".x", "h", "a", "g", "c", "f", "e"}) {
    test::WriteFile(folder.File(name), "");
  }
  const UniqueFd fd = OpenFile(folder.path(), O_RDONLY | O_DIRECTORY);
  EXPECT_THAT(ListDirectory(fd.get(), "it"), testing::ElementsAre(".x", "a", "b", "c", "d", "e", "f", "g", "h"));
}

// Two datagrams are read by two calls, and what a call has no room for is dropped.
TEST(ReadFullyTest, ReadFullyGoesOnAfterAPartAndTakesNoMoreThanItWasAskedFor) {
  std::array<int, 2> sockets{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets.data()), 0);
  const UniqueFd reader(sockets[0]);
  {
    const UniqueFd writer(sockets[1]);
    ASSERT_EQ(write(writer.get(), "ab", 2), 2);
    ASSERT_EQ(write(writer.get(), "cde", 3), 3);
    ASSERT_EQ(write(writer.get(), "fgh", 3), 3);
  }
  std::string text = "1234567890";
  EXPECT_EQ(ReadFully(reader.get(), text.data() + 2, 6, "the socket"), 6U);
  EXPECT_EQ(text, "12abcdef90");
}

TEST(WriteFullyTest, WriteFullyGoesOnAfterAWriteThatASignalCutsShort) {
  struct sigaction does_nothing {};
  does_nothing.sa_handler = [](int) {};
  struct sigaction before {};
  ASSERT_EQ(sigaction(SIGUSR1, &does_nothing, &before), 0);
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  UniqueFd read_end(ends[0]);
  UniqueFd write_end(ends[1]);
  const int room = fcntl(write_end.get(), F_GETPIPE_SZ);
  std::string text;
  while (text.size() < 2 * static_cast<std::size_t>(room)) {
    text += std::to_string(text.size());
  }

  std::thread writer([&] {
    WriteFully(write_end.get(), text.data(), text.size(), "the pipe");
    write_end = UniqueFd();
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  int in_pipe = 0;
  while (in_pipe < room && std::chrono::steady_clock::now() < deadline) {
    ioctl(read_end.get(), FIONREAD, &in_pipe);
  }
  pthread_kill(writer.native_handle(), SIGUSR1);
  std::string written(text.size() + 1, '\0');
  written.resize(ReadFully(read_end.get(), written.data(), written.size(), "the pipe"));
  read_end = UniqueFd();  // a writer that goes on ends the test rather than waits for ever
  writer.join();
  sigaction(SIGUSR1, &before, nullptr);
  EXPECT_EQ(in_pipe, room);
  EXPECT_EQ(written, text);
}

// What cannot be opened is named with its reason, not with what failed because of it.
TEST(RemoveTreeTest, SaysWhyAFolderCannotBeOpened) {
  const TempDir folder;
  test::WriteFile(folder.File("inner/file"), "");
  const UniqueFd parent = OpenFile(folder.path(), O_RDONLY | O_DIRECTORY);
  const std::vector<std::pair<std::function<void()>, std::string>> attempts = {
      {[&] { RemoveTree(parent.get(), "inner", "inner folder"); }, "inner folder: "},
      {[&] { RemoveAtOnce(folder.File("inner")); }, folder.path().string() + "/: "},
      {[&] { ListDirectory(parent.get(), "this folder"); }, "this folder: "},
  };
  for (const auto& [attempt, front] : attempts) {
    std::optional<std::system_error> error;
    test::WithFailingCall(SYS_openat, EMFILE, [&error, &attempt = attempt] { error = ErrorOf(attempt); });
    ASSERT_TRUE(error) << front;
    EXPECT_EQ(error->code().value(), EMFILE) << front;
    EXPECT_THAT(error->what(), StartsWith(front));
  }
  EXPECT_TRUE(std::filesystem::exists(folder.File("inner/file")));
}

TEST(SyncFolderOfTest, NamesTheFileWhoseFolderIsMissing) {
  const TempDir folder;
  const std::string path = folder.File("missing/file");
  const auto error = ErrorOf([&] { SyncFolderOf(path); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code().value(), ENOENT);
  EXPECT_THAT(error->what(), StartsWith("cannot sync the folder of " + path + ": "));
  SyncFolderOf(folder.File("file"));
}

}  // namespace
}  // namespace orbamira
