#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "platform/posix/errors.h"
#include "platform/posix/flock.h"
#include "platform/posix/sync_folder.h"
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
