#include "updater/status_record.h"

#include <gmock/gmock.h>
#include <sys/syscall.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <system_error>

#include "platform/as_long.h"
#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/key_value_store.h"
#include "tests/support/error_text.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"
#include "tests/support/written_folders.h"
#include "updater/json_text.h"
#include "updater/pack_status_helper.h"

namespace orbamira::updater {
namespace {

namespace keys = webapi::param;

class StatusRecordTest : public testing::Test {
 protected:
  void SetUp() override {
    test::RemoveWrittenFolders();
    std::filesystem::create_directories(std::filesystem::path(path::kPackStatusFile).parent_path());
  }

  static void Store(const std::map<std::string, std::string>& values) {
    const auto store = store::FileKeyValueStore::Create(path::kPackStatusFile);
    for (const auto& [key, value] : values) {
      store->Set(key, value);
    }
  }
};

TEST_F(StatusRecordTest, ReadWithoutAStoreIsTheDefaultAndMakesNone) {
  EXPECT_EQ(ReadStatusRecord(), StatusRecord());
  EXPECT_FALSE(std::filesystem::exists(path::kPackStatusFile));
}

TEST_F(StatusRecordTest, ReadMakesNothingAndSetsNothingAside) {
  const std::filesystem::path locks = std::filesystem::path(path::kPackStatusLock).parent_path();
  std::filesystem::remove_all(locks);
  EXPECT_EQ(ReadStatusRecord(), StatusRecord());
  EXPECT_FALSE(std::filesystem::exists(locks));
  const std::string cut = R"({"status": "insta)";
  for (const std::string& text :
       {cut, std::string("[]"), std::string(R"({"status": 1})"), std::string(R"({"new_version": 1})"), std::string()}) {
    test::WriteFile(path::kPackStatusFile, text);
    EXPECT_THROW(static_cast<void>(ReadStatusRecord()), std::domain_error) << text;
    EXPECT_EQ(test::ReadFile(path::kPackStatusFile), text);
  }
  std::filesystem::remove(path::kPackStatusFile);
  std::filesystem::create_directories(path::kPackStatusFile);
  EXPECT_THROW(static_cast<void>(ReadStatusRecord()), std::domain_error);
  EXPECT_TRUE(std::filesystem::is_empty(path::kPackStatusFile));
}

TEST_F(StatusRecordTest, IsUnderWayTellsWorkFromTheRest) {
  for (const PackStatus status : {kStatusDownloading, kStatusInstalling, kStatusDownloadingInstalling}) {
    EXPECT_TRUE(IsUnderWay(status)) << kPackStatusTexts.at(static_cast<std::size_t>(status));
  }
  for (const PackStatus status : {kStatusLost, kStatusNeedDownload, kStatusDownloadFailed, kStatusNeedInstall,
                                  kStatusInstallFailed, kStatusDownloadInstallFailed, kStatusUpToDate}) {
    EXPECT_FALSE(IsUnderWay(status)) << kPackStatusTexts.at(static_cast<std::size_t>(status));
  }
}

TEST_F(StatusRecordTest, ReadOfAnEmptyStoreIsTheDefault) {
  Store({});
  EXPECT_EQ(ReadStatusRecord(), StatusRecord());
}

TEST_F(StatusRecordTest, ReadGivesWhatTheLibraryRecorded) {
  const auto helper = PackStatusHelper::Create();
  helper->SetAsNeedInstall("2.1", kHevcPack);
  EXPECT_EQ(ReadStatusRecord(),
            (StatusRecord{.status = kStatusNeedInstall, .new_pack_name = kHevcPack, .new_version = "2.1"}));
  helper->SetAsInstalling(kStepInstall);
  EXPECT_EQ(ReadStatusRecord(), (StatusRecord{.status = kStatusInstalling, .install_step = "install"}));
}

TEST_F(StatusRecordTest, ReadGivesSizesInFullWidth) {
  const long now = AsLong(3'000'000'000);
  const long total = AsLong(4'000'000'000);
  PackStatusHelper::Create()->SetAsDownloading(now, total);
  EXPECT_EQ(ReadStatusRecord(),
            (StatusRecord{.status = kStatusDownloading, .download_size_now = now, .download_size_total = total}));
}

TEST_F(StatusRecordTest, ReadTellsTheStepsAfterInstallAndUninstallApart) {
  const auto helper = PackStatusHelper::Create();
  helper->SetAsInstalling(kStepPostUninstall);
  EXPECT_EQ(ReadStatusRecord().install_step, "post_uninstall");
  helper->SetAsInstalling(kStepPostInstall);
  EXPECT_EQ(ReadStatusRecord().install_step, "post_install");
}

TEST_F(StatusRecordTest, ReadThrowsForWhatCannotBeDecoded) {
  for (const auto& [key, value] : std::map<std::string, std::string>{{keys::kStatus, "UP_TO_DATE"},
                                                                     {keys::kInstallStep, "dance"},
                                                                     {keys::kDownloadSizeNow, "many"},
                                                                     {keys::kDownloadSizeTotal, ""}}) {
    std::filesystem::remove(path::kPackStatusFile);
    Store({{key, value}});
    EXPECT_THROW(static_cast<void>(ReadStatusRecord()), std::domain_error) << key;
  }
}

TEST_F(StatusRecordTest, ReadTakesAStoreUpToTheLimit) {
  const std::string record = R"({"new_version": "2.1"})";
  const std::string longest = record + std::string(kJsonTextLimit - record.size(), ' ');
  test::WriteFile(path::kPackStatusFile, longest);
  EXPECT_EQ(ReadStatusRecord().new_version, "2.1");
  test::WriteFile(path::kPackStatusFile, longest + ' ');
  EXPECT_THROW(static_cast<void>(ReadStatusRecord()), std::domain_error);
}

TEST_F(StatusRecordTest, ReadTakesTheLockOfTheStore) {
  Store({});
  { const store::FileLock made(std::string{path::kPackStatusLock}); }
  test::WithFailingCall(SYS_flock, ENOLCK, [] {
    EXPECT_THAT([] { static_cast<void>(ReadStatusRecord()); },
                testing::ThrowsMessage<std::system_error>(std::string("lock ") + path::kPackStatusLock + ": " +
                                                          test::ErrorText(ENOLCK)));
  });
}

TEST_F(StatusRecordTest, ReadThrowsWhenTheStoreCannotBeUsed) {
  Store({});
  { const store::FileLock made(std::string{path::kPackStatusLock}); }
  std::filesystem::permissions(test::Root(), std::filesystem::perms(0711));
  std::filesystem::permissions(path::kPackStatusLock, std::filesystem::perms(0644));
  std::filesystem::permissions(path::kPackStatusFile, std::filesystem::perms::none);
  const test::OrdinaryUser user;
  EXPECT_THAT([] { static_cast<void>(ReadStatusRecord()); },
              testing::ThrowsMessage<std::runtime_error>(std::string("cannot use the status store ") +
                                                         path::kPackStatusFile + ": " + test::ErrorText(EACCES)));
}

}  // namespace
}  // namespace orbamira::updater
