#include "platform/posix/atomic_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

#include "tests/support/disk_calls.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;
using test::ReadFile;
using test::TempDir;
using test::WriteFile;
using testing::ElementsAre;
using testing::HasSubstr;

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

std::size_t EntriesIn(const fs::path& folder) {
  return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

std::system_error ErrorOfReplacing(const std::string& path, std::string_view content, Durability durability) {
  try {
    ReplaceFile(path, content, 0644, durability);
  } catch (const std::system_error& error) {
    return error;
  }
  ADD_FAILURE() << path << " was replaced";
  return {0, std::generic_category()};
}

class AtomicFileTest : public testing::TestWithParam<Durability> {
 protected:
  TempDir dir_;
  std::string path_ = dir_.File("file");
};

TEST_P(AtomicFileTest, ReplaceFileMakesAMissingFile) {
  ReplaceFile(path_, "content", 0600, GetParam());
  EXPECT_EQ(ReadFile(path_), "content");
}

TEST_P(AtomicFileTest, ReplaceFileReplacesTheWholeContent) {
  WriteFile(path_, "a much longer content than the new one");
  ReplaceFile(path_, std::string_view("n\0w", 3), 0600, GetParam());
  EXPECT_EQ(ReadFile(path_), std::string("n\0w", 3));
}

TEST_P(AtomicFileTest, ReplaceFileMakesAnEmptyFile) {
  WriteFile(path_, "old");
  ReplaceFile(path_, "", 0644, GetParam());
  EXPECT_TRUE(fs::exists(path_));
  EXPECT_EQ(ReadFile(path_), "");
}

TEST_P(AtomicFileTest, ReplaceFileLeavesNothingBeside) {
  ReplaceFile(path_, "content", 0600, GetParam());
  EXPECT_EQ(EntriesIn(dir_.path()), 1U);
}

TEST_P(AtomicFileTest, ReplaceFileSetsTheModeWhateverTheUmask) {
  const mode_t before = umask(0777);
  ReplaceFile(path_, "content", 0644, GetParam());
  umask(before);
  EXPECT_EQ(ModeOf(path_), 0644U);
}

TEST_P(AtomicFileTest, ReplaceFileNarrowsTheModeOfAnOpenFile) {
  WriteFile(path_, "old");
  ASSERT_EQ(chmod(path_.c_str(), 0666), 0);
  ReplaceFile(path_, "content", 0600, GetParam());
  EXPECT_EQ(ModeOf(path_), 0600U);
}

TEST_P(AtomicFileTest, ReplaceFileDoesNotFollowALink) {
  WriteFile(dir_.File("target"), "untouched");
  fs::create_symlink("target", path_);
  ReplaceFile(path_, "content", 0644, GetParam());
  EXPECT_FALSE(fs::is_symlink(path_));
  EXPECT_EQ(ReadFile(path_), "content");
  EXPECT_EQ(ReadFile(dir_.File("target")), "untouched");
}

TEST_P(AtomicFileTest, ReplaceFileTakesANameWithoutFolder) {
  const fs::path before = fs::current_path();
  fs::current_path(dir_.path());
  ReplaceFile("file", "content", 0644, GetParam());
  fs::current_path(before);
  EXPECT_EQ(ReadFile(path_), "content");
}

TEST_P(AtomicFileTest, ReplaceFileReportsAMissingFolder) {
  const std::string path = dir_.File("missing/file");
  const std::system_error error = ErrorOfReplacing(path, "content", GetParam());
  EXPECT_EQ(error.code().value(), ENOENT);
  EXPECT_THAT(error.what(), HasSubstr(path));
}

TEST_P(AtomicFileTest, ReplaceFileThatCannotRenameLeavesNothingBeside) {
  fs::create_directory(path_);
  EXPECT_EQ(ErrorOfReplacing(path_, "content", GetParam()).code().value(), EISDIR);
  EXPECT_EQ(EntriesIn(dir_.path()), 1U);
}

TEST_P(AtomicFileTest, ReplaceFileThatCannotWriteLeavesTheOldFile) {
  WriteFile(path_, "old");
  ASSERT_NE(std::signal(SIGXFSZ, SIG_IGN), SIG_ERR);
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit small{4096, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const std::system_error error = ErrorOfReplacing(path_, std::string(8192, 'x'), GetParam());
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_EQ(error.code().value(), EFBIG);
  EXPECT_EQ(ReadFile(path_), "old");
  EXPECT_EQ(EntriesIn(dir_.path()), 1U);
}

// A rename may outlive a power cut that the content of the renamed file does not.
TEST_P(AtomicFileTest, ReplaceFileThatCannotSyncLeavesTheOldFile) {
  WriteFile(path_, "old");
  test::WithFailingCall(SYS_fsync, EIO,
                        [&] { EXPECT_EQ(ErrorOfReplacing(path_, "content", GetParam()).code().value(), EIO); });
  EXPECT_EQ(ReadFile(path_), "old");
  EXPECT_EQ(EntriesIn(dir_.path()), 1U);
}

class AtomicFileOrderTest : public testing::Test {
 protected:
  AtomicFileOrderTest() { fs::create_directory(dir_.path() / "folder"); }

  TempDir dir_;
  std::string path_ = dir_.File("folder/file");
};

TEST_F(AtomicFileOrderTest, ReplaceFileSyncsTheContentBeforeItIsSeen) {
  const test::DiskCalls calls;
  ReplaceFile(path_, "content", 0644, Durability::kVisible);
  EXPECT_THAT(calls.all(), ElementsAre("sync file.XXXXXX", "rename file.XXXXXX to file"));
}

TEST_F(AtomicFileOrderTest, ReplaceFileSyncsTheNameThatShallStay) {
  const test::DiskCalls calls;
  ReplaceFile(path_, "content", 0644, Durability::kDurable);
  EXPECT_THAT(calls.all(), ElementsAre("sync file.XXXXXX", "rename file.XXXXXX to file", "sync folder"));
}

TEST_F(AtomicFileOrderTest, MakeFileSyncsTheContentBeforeItIsSeen) {
  const test::DiskCalls calls;
  EXPECT_TRUE(MakeFile(path_, "content", 0644).valid());
  EXPECT_THAT(calls.all(), ElementsAre("sync file.XXXXXX", "rename file.XXXXXX to file"));
}

// The room is the file's for good only once it is on the disk.
TEST_F(AtomicFileOrderTest, ReservedFileSyncsItsRoomItsContentAndItsName) {
  test::DiskCalls calls;
  ReservedFile file(path_, 100);
  calls.Note("reserved");
  file.Replace("content", 0644);
  EXPECT_THAT(calls.all(),
              ElementsAre("sync file.new", "reserved", "sync file.new", "rename file.new to file", "sync folder"));
}

TEST(ReservedFileTest, ReservedFileReportsAMissingFolder) {
  const TempDir dir;
  const std::string path = dir.File("missing/file");
  try {
    ReservedFile file(path, 100);
    ADD_FAILURE() << "room was made";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), ENOENT);
    EXPECT_THAT(error.what(), HasSubstr("cannot make a file beside " + path + ": "));
  }
}

TEST(ReservedFileTest, ReservedFileThatCannotGiveRoomBackLeavesTheOldFile) {
  const TempDir dir;
  WriteFile(dir.File("file"), "old");
  test::WithFailingCall(SYS_ftruncate, EIO, [&] {
    EXPECT_THROW(ReservedFile(dir.File("file"), 100).Replace("content", 0644), std::system_error);
  });
  EXPECT_EQ(ReadFile(dir.File("file")), "old");
  EXPECT_EQ(EntriesIn(dir.path()), 1U);
}

TEST(ReservedFileTest, ReservedFileKeepsNoRoomThatIsNotUsed) {
  const TempDir dir;
  ReservedFile(dir.File("file"), 100).Replace("content", 0644);
  EXPECT_EQ(ReadFile(dir.File("file")), "content");
}

TEST(MakeFileTest, MakeFileThatCannotRenameMakesNone) {
  const TempDir dir;
  test::WithFailingCall(SYS_renameat2, EIO, [&] {
    try {
      static_cast<void>(MakeFile(dir.File("file"), "content", 0644));
      ADD_FAILURE() << "it was made";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), EIO);
      EXPECT_THAT(error.what(), HasSubstr("cannot make " + dir.File("file") + ": "));
    }
  });
  EXPECT_EQ(EntriesIn(dir.path()), 0U);
}

TEST(MakeFileTest, MakeFileThatCannotSyncMakesNone) {
  const TempDir dir;
  test::WithFailingCall(SYS_fsync, EIO, [&] {
    try {
      static_cast<void>(MakeFile(dir.File("file"), "content", 0644));
      ADD_FAILURE() << "it was made";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), EIO);
    }
  });
  EXPECT_EQ(EntriesIn(dir.path()), 0U);
}

// Without the flag the first status file could never be made, and every command failed.
TEST(MakeFileTest, MakeFileGoesWithoutARenameThatReplacesNothing) {
  for (const int error : {EINVAL, ENOSYS}) {
    const TempDir dir;
    const std::string path = dir.File("file");
    test::WithFailingCall(SYS_renameat2, error, [&] {
      EXPECT_TRUE(MakeFile(path, "first", 0644).valid()) << error;
      EXPECT_FALSE(MakeFile(path, "second", 0644).valid()) << error;
    });
    EXPECT_EQ(ReadFile(path), "first");
    EXPECT_EQ(EntriesIn(dir.path()), 1U);
  }
}

TEST_P(AtomicFileTest, ReplaceFileNeverShowsAReaderAPart) {
  const std::string first(300000, 'a');
  const std::string second(100000, 'b');
  ReplaceFile(path_, first, 0644, GetParam());
  std::atomic<bool> done = false;
  std::thread writer([&] {
    for (int i = 0; i < 50; ++i) {
      ReplaceFile(path_, i % 2 == 0 ? second : first, 0644, GetParam());
    }
    done = true;
  });
  while (!done) {
    const std::string seen = ReadFile(path_);
    EXPECT_TRUE(seen == first || seen == second) << seen.size();
  }
  writer.join();
}

INSTANTIATE_TEST_SUITE_P(EachDurability, AtomicFileTest, testing::Values(Durability::kVisible, Durability::kDurable),
                         [](const auto& each) { return each.param == Durability::kDurable ? "Durable" : "Visible"; });

}  // namespace
}  // namespace orbamira
