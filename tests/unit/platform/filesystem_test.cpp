#include "platform/filesystem.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"

namespace orbamira::filesystem {
namespace {

namespace fs = std::filesystem;

class FilesystemTest : public testing::Test {
 protected:
  test::TempDir folder_;
};

TEST_F(FilesystemTest, DoseFileExistForAFile) {
  test::WriteFile(folder_.File("file"), "");
  EXPECT_TRUE(DoseFileExist(folder_.File("file")));
}

TEST_F(FilesystemTest, DoseFileExistNotForWhatIsMissing) {
  EXPECT_FALSE(DoseFileExist(folder_.File("file")));
  EXPECT_FALSE(DoseFileExist(""));
}

TEST_F(FilesystemTest, DoseFileExistNotForADirectory) { EXPECT_FALSE(DoseFileExist(folder_.path())); }

TEST_F(FilesystemTest, DoseFileExistFollowsLinks) {
  test::WriteFile(folder_.File("file"), "");
  fs::create_symlink("file", folder_.path() / "to_file");
  fs::create_symlink(".", folder_.path() / "to_folder");
  fs::create_symlink("missing", folder_.path() / "to_nothing");
  EXPECT_TRUE(DoseFileExist(folder_.File("to_file")));
  EXPECT_FALSE(DoseFileExist(folder_.File("to_folder")));
  EXPECT_FALSE(DoseFileExist(folder_.File("to_nothing")));
}

TEST_F(FilesystemTest, DoseFileExistForOtherKindsOfFiles) {
  ASSERT_EQ(mkfifo(folder_.File("pipe").c_str(), 0600), 0);
  EXPECT_TRUE(DoseFileExist(folder_.File("pipe")));
  EXPECT_TRUE(DoseFileExist("/dev/null"));
}

TEST_F(FilesystemTest, DoseFileExistNotBehindAClosedFolder) {
  test::WriteFile(folder_.path() / "closed" / "file", "");
  fs::permissions(test::Root(), fs::perms::owner_all | fs::perms::others_exec);
  fs::permissions(folder_.path(), fs::perms::owner_all | fs::perms::others_exec);
  fs::permissions(folder_.path() / "closed", fs::perms::none);
  {
    const test::OrdinaryUser user;
    EXPECT_FALSE(DoseFileExist(folder_.File("closed/file")));
  }
  fs::permissions(folder_.path() / "closed", fs::perms::owner_all);
}

}  // namespace
}  // namespace orbamira::filesystem
