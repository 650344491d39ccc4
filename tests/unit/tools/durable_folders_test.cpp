#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/syscall.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/constants.h"
#include "platform/posix/unique_fd.h"
#include "platform/removal.h"
#include "tests/support/disk_calls.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"
#include "tools/orba-archive/archive_writer.h"
#include "tools/orba-copy/copy_folder.h"

namespace orbamira::tools {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::UnorderedElementsAre;

class DurableFoldersTest : public testing::Test {
 protected:
  DurableFoldersTest() { fs::create_directories(dir_.path() / "packs"); }

  test::TempDir dir_;
};

TEST_F(DurableFoldersTest, RemoveForUpdaterSyncsTheFolderThatThePackLeft) {
  test::WriteFile(path::kPackInfoPath, "1");
  const test::DiskCalls calls;
  RemoveForUpdater(path::kPackFolderPath);
  EXPECT_THAT(calls.all(), ElementsAre("rename " ORBAMIRA_PACK_FOLDER_NAME " to .removed.XXXXXX",
                                       "sync " + fs::path(kTargetFolder).filename().string()));
}

TEST_F(DurableFoldersTest, RemoveForUpdaterHasNothingToSyncWithoutAPack) {
  fs::remove_all(kTargetFolder);
  const test::DiskCalls calls;
  RemoveForUpdater(path::kPackFolderPath);
  EXPECT_THAT(calls.all(), ElementsAre());
}

// A file system may keep a rename through a power cut and lose what was renamed.
TEST_F(DurableFoldersTest, CopyFolderSyncsTheCopyBeforeItIsSeenAndThenItsName) {
  test::WriteFile(dir_.File("source/file"), "1");
  const test::DiskCalls calls;
  CopyFolder(dir_.File("source"), dir_.File("packs/pack"));
  EXPECT_THAT(calls.all(),
              ElementsAre("sync all with .pack.partial.XXXXXX", "rename .pack.partial.XXXXXX to pack", "sync packs"));
}

TEST_F(DurableFoldersTest, CopyFolderSyncsEachFileWhereAFileSystemCannotBeSyncedAsAWhole) {
  test::WriteFile(dir_.File("source/top"), "1");
  test::WriteFile(dir_.File("source/folder/inner"), "2");
  const test::DiskCalls calls;
  test::WithFailingCall(SYS_syncfs, ENOSYS, [&] { CopyFolder(dir_.File("source"), dir_.File("packs/pack")); });
  ASSERT_EQ(calls.all().size(), 7U);
  const auto renamed = calls.all().end() - 2;
  EXPECT_THAT(std::vector(calls.all().begin() + 1, renamed),
              UnorderedElementsAre("sync top", "sync inner", "sync folder", "sync .pack.partial.XXXXXX"));
  EXPECT_THAT(std::vector(renamed, calls.all().end()),
              ElementsAre("rename .pack.partial.XXXXXX to pack", "sync packs"));
}

TEST_F(DurableFoldersTest, CreateArchiveSyncsItBeforeItIsSeen) {
  test::WriteFile(dir_.File("source/file"), "1");
  const UniqueFd folder(open(dir_.File("source").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const test::DiskCalls calls;
  CreateArchive(dir_.File("packs/package.tgz"), Layer::kPayload, folder.get(), {"."}, 0);
  EXPECT_THAT(calls.all(), ElementsAre("sync package.tgz.XXXXXX", "rename package.tgz.XXXXXX to package.tgz"));
}

}  // namespace
}  // namespace orbamira::tools
