#include <gmock/gmock.h>

#include <filesystem>
#include <map>
#include <stdexcept>

#include "platform/constants.h"
#include "platform/key_value_store.h"
#include "tests/support/forked.h"
#include "tests/support/test_root.h"
#include "tools/packctl/record/status_reader.h"
#include "updater/pack_status_helper.h"

namespace orbamira::packctl {
namespace {

namespace keys = webapi::param;

class StatusReaderTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(test::Root() / "var");
    std::filesystem::create_directories(std::filesystem::path(path::kPackStatusFile).parent_path());
  }

  static void Store(const std::map<std::string, std::string>& values) {
    const auto store = store::FileKeyValueStore::Create(path::kPackStatusFile);
    for (const auto& [key, value] : values) {
      store->Set(key, value);
    }
  }
};

TEST_F(StatusReaderTest, ReadStatusWithoutAStoreIsTheDefaultAndMakesNone) {
  EXPECT_EQ(ReadStatus(), StatusRecord());
  EXPECT_FALSE(std::filesystem::exists(path::kPackStatusFile));
}

TEST_F(StatusReaderTest, ReadStatusOfAnEmptyStoreIsTheDefault) {
  Store({});
  EXPECT_EQ(ReadStatus(), StatusRecord());
}

TEST_F(StatusReaderTest, ReadStatusGivesWhatTheLibraryRecorded) {
  const auto helper = updater::PackStatusHelper::Create();
  helper->SetAsNeedInstall("2.1", "orbamira-hevc");
  EXPECT_EQ(
      ReadStatus(),
      (StatusRecord{.status = updater::kStatusNeedInstall, .new_pack_name = "orbamira-hevc", .new_version = "2.1"}));
  helper->SetAsInstalling(updater::kStepInstall);
  EXPECT_EQ(ReadStatus(), (StatusRecord{.status = updater::kStatusInstalling, .install_step = "install"}));
}

TEST_F(StatusReaderTest, ReadStatusGivesSizesInFullWidth) {
  updater::PackStatusHelper::Create()->SetAsDownloading(3'000'000'000, 4'000'000'000);
  EXPECT_EQ(ReadStatus(), (StatusRecord{.status = updater::kStatusDownloading,
                                        .download_size_now = 3'000'000'000,
                                        .download_size_total = 4'000'000'000}));
}

TEST_F(StatusReaderTest, ReadStatusTellsTheStepsAfterInstallAndUninstallApart) {
  const auto helper = updater::PackStatusHelper::Create();
  helper->SetAsInstalling(updater::kStepPostUninstall);
  EXPECT_EQ(ReadStatus().install_step, "post_uninstall");
  helper->SetAsInstalling(updater::kStepPostInstall);
  EXPECT_EQ(ReadStatus().install_step, "post_install");
}

TEST_F(StatusReaderTest, ReadStatusThrowsForWhatCannotBeDecoded) {
  for (const auto& [key, value] : std::map<std::string, std::string>{{keys::kStatus, "UP_TO_DATE"},
                                                                     {keys::kInstallStep, "dance"},
                                                                     {keys::kDownloadSizeNow, "many"},
                                                                     {keys::kDownloadSizeTotal, ""}}) {
    std::filesystem::remove(path::kPackStatusFile);
    Store({{key, value}});
    EXPECT_THROW(ReadStatus(), std::domain_error) << key;
  }
}

TEST_F(StatusReaderTest, ReadStatusThrowsWhenTheStoreCannotBeUsed) {
  Store({});
  ReadStatus();  // makes the lock
  std::filesystem::permissions(test::Root(), std::filesystem::perms(0711));
  std::filesystem::permissions(path::kPackStatusLock, std::filesystem::perms(0644));
  std::filesystem::permissions(path::kPackStatusFile, std::filesystem::perms::none);
  test::Forked user([] {
    test::BecomeOrdinaryUser();
    try {
      ReadStatus();
      return 1;
    } catch (const std::runtime_error& error) {
      return error.what() == std::string("cannot use the status store ") + path::kPackStatusFile ? 0 : 2;
    }
  });
  EXPECT_EQ(user.Wait(), 0);
}

}  // namespace
}  // namespace orbamira::packctl
