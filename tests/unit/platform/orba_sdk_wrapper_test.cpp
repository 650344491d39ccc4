#include "platform/orba_sdk_wrapper.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira::wrapper {
namespace {

namespace fs = std::filesystem;

mode_t ModeOf(const fs::path& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

class OrbaSDKWrapperTest : public testing::Test {
 protected:
  int Make(const std::string& name) { return wrapper_.MakeDirectory(folder_.File(name)); }

  test::TempDir folder_;
  OrbaSDKWrapper wrapper_;
};

TEST_F(OrbaSDKWrapperTest, MakeDirectoryMakesTheMissingParents) {
  EXPECT_EQ(Make("a/b/c"), 0);
  EXPECT_TRUE(fs::is_directory(folder_.path() / "a/b/c"));
}

TEST_F(OrbaSDKWrapperTest, MakeDirectoryGivesTheSameModeWhateverTheUmask) {
  for (const mode_t mask : {0000U, 0022U, 0077U}) {
    const std::string name = "mask" + std::to_string(mask);
    const mode_t before = umask(mask);
    EXPECT_EQ(Make(name + "/inner"), 0);
    umask(before);
    EXPECT_EQ(ModeOf(folder_.path() / name), S_IFDIR | 0755U);
    EXPECT_EQ(ModeOf(folder_.path() / name / "inner"), S_IFDIR | 0755U);
  }
}

TEST_F(OrbaSDKWrapperTest, MakeDirectoryAcceptsAnExistingDirectoryAndItsMode) {
  ASSERT_EQ(mkdir(folder_.File("private").c_str(), 0700), 0);
  EXPECT_EQ(Make("private"), 0);
  EXPECT_EQ(ModeOf(folder_.path() / "private"), S_IFDIR | 0700U);
  EXPECT_EQ(wrapper_.MakeDirectory("/"), 0);
  EXPECT_EQ(wrapper_.MakeDirectory("."), 0);
}

TEST_F(OrbaSDKWrapperTest, MakeDirectoryAcceptsALinkToADirectory) {
  ASSERT_EQ(mkdir(folder_.File("real").c_str(), 0755), 0);
  fs::create_directory_symlink("real", folder_.path() / "link");
  EXPECT_EQ(Make("link"), 0);
  EXPECT_EQ(Make("link/inner"), 0);
  EXPECT_TRUE(fs::is_directory(folder_.path() / "real/inner"));
}

TEST_F(OrbaSDKWrapperTest, MakeDirectoryIgnoresSuperfluousSlashes) {
  EXPECT_EQ(Make("a//b/"), 0);
  EXPECT_TRUE(fs::is_directory(folder_.path() / "a/b"));
}

TEST_F(OrbaSDKWrapperTest, MakeDirectoryTakesARelativePath) {
  const fs::path before = fs::current_path();
  fs::current_path(folder_.path());
  EXPECT_EQ(wrapper_.MakeDirectory("x/y"), 0);
  fs::current_path(before);
  EXPECT_TRUE(fs::is_directory(folder_.path() / "x/y"));
}

TEST_F(OrbaSDKWrapperTest, MakeDirectoryRefusesAnEmptyPath) { EXPECT_EQ(wrapper_.MakeDirectory(""), -ENOENT); }

TEST_F(OrbaSDKWrapperTest, MakeDirectoryFailsWhereAFileStands) {
  test::WriteFile(folder_.File("file"), "kept");
  EXPECT_EQ(Make("file"), -ENOTDIR);
  EXPECT_EQ(Make("file/inner"), -ENOTDIR);
  EXPECT_EQ(test::ReadFile(folder_.File("file")), "kept");
}

TEST_F(OrbaSDKWrapperTest, MakeDirectoryFailsAtALinkToNothing) {
  fs::create_symlink("missing", folder_.path() / "link");
  EXPECT_EQ(Make("link"), -EEXIST);
}

TEST_F(OrbaSDKWrapperTest, MakeDirectoryFailsWithANameThatIsTooLong) {
  EXPECT_EQ(Make(std::string(300, 'n')), -ENAMETOOLONG);
}

TEST_F(OrbaSDKWrapperTest, MakeDirectoryFailsInAFolderThatIsNotOurs) {
  fs::permissions(test::Root(), fs::perms::owner_all | fs::perms::others_exec);
  fs::permissions(folder_.path(), fs::perms::owner_read | fs::perms::owner_exec | fs::perms::others_exec);
  {
    const test::OrdinaryUser user;
    EXPECT_EQ(Make("inner"), -EACCES);
  }
  fs::permissions(folder_.path(), fs::perms::owner_all);
}

TEST_F(OrbaSDKWrapperTest, MakeDirectoryLetsTwoMakeTheSameTree) {
  for (int round = 0; round < 50; ++round) {
    const std::string tree = std::to_string(round) + "/a/b/c/d/e";
    std::thread other([&] { EXPECT_EQ(Make(tree), 0); });
    EXPECT_EQ(Make(tree), 0);
    other.join();
  }
}

}  // namespace
}  // namespace orbamira::wrapper
