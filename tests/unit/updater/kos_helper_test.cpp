#include "updater/kos_helper.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "platform/constants.h"
#include "platform/paths.h"
#include "tests/support/log_capture.h"
#include "tests/support/mocks.h"
#include "tests/support/test_root.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;
using test::ErrorLine;
using test::LogCapture;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;
using testing::StrictMock;

class KOSHelperTest : public testing::Test {
 protected:
  KOSHelperTest() { LogCapture::Clear(); }

  std::shared_ptr<StrictMock<test::MockCore>> core_ = std::make_shared<StrictMock<test::MockCore>>();
  std::shared_ptr<StrictMock<test::MockZelo>> zelo_ = std::make_shared<StrictMock<test::MockZelo>>();
  std::unique_ptr<IKOSHelper> helper_ = KOSHelper::CreateForTest(core_, zelo_);
};

TEST_F(KOSHelperTest, CreateForTestAsksNothingAndSharesTheServices) {
  EXPECT_EQ(core_.use_count(), 2);
  EXPECT_EQ(zelo_.use_count(), 2);
  helper_.reset();
  EXPECT_EQ(core_.use_count(), 1);
  EXPECT_EQ(zelo_.use_count(), 1);
}

TEST_F(KOSHelperTest, GetMajorVersionReadsTheVersionFile) {
  EXPECT_CALL(*core_, GetKeyValue(common::kDefaultVersionPath, common::kMajorVersion)).WillOnce(Return(" 3 "));
  EXPECT_EQ(helper_->GetMajorVersion(), " 3 ");
}

TEST_F(KOSHelperTest, GetMinorVersionReadsTheVersionFile) {
  EXPECT_CALL(*core_, GetKeyValue(common::kDefaultVersionPath, common::kMinorVersion)).WillOnce(Return("1"));
  EXPECT_EQ(helper_->GetMinorVersion(), "1");
}

TEST_F(KOSHelperTest, GetBuildNumberReadsTheVersionFile) {
  EXPECT_CALL(*core_, GetKeyValue(common::kDefaultVersionPath, common::kBuildNumber)).WillOnce(Return("1200"));
  EXPECT_EQ(helper_->GetBuildNumber(), "1200");
}

TEST_F(KOSHelperTest, GetUniqueReadsTheMainSettings) {
  EXPECT_CALL(*core_, GetKeyValue(common::kDefaultOrbaInfoPath, common::kUnique)).WillOnce(Return("kos_x86_ds9"));
  EXPECT_EQ(helper_->GetUnique(), "kos_x86_ds9");
}

TEST_F(KOSHelperTest, GetVersionFromPathReadsTheGivenFile) {
  EXPECT_CALL(*core_, GetKeyValue("/some/INFO", common::kVersion)).WillOnce(Return("1.2-3"));
  EXPECT_EQ(helper_->GetVersionFromPath("/some/INFO"), "1.2-3");
}

TEST_F(KOSHelperTest, GetPackageNameFromPathReadsTheGivenFile) {
  EXPECT_CALL(*core_, GetKeyValue("/some/INFO", param::kPackage)).WillOnce(Return("codec-pack"));
  EXPECT_EQ(helper_->GetPackageNameFromPath("/some/INFO"), "codec-pack");
}

TEST_F(KOSHelperTest, LookupsAreNotCached) {
  EXPECT_CALL(*core_, GetKeyValue(common::kDefaultOrbaInfoPath, common::kUnique))
      .WillOnce(Return("old"))
      .WillOnce(Return("new"));
  EXPECT_EQ(helper_->GetUnique(), "old");
  EXPECT_EQ(helper_->GetUnique(), "new");
}

TEST_F(KOSHelperTest, MissingValuesAreEmptyWithoutALine) {
  EXPECT_CALL(*core_, GetKeyValue).Times(3).WillRepeatedly(Return(""));
  EXPECT_EQ(helper_->GetUnique(), "");
  EXPECT_EQ(helper_->GetVersionFromPath("/missing"), "");
  EXPECT_EQ(helper_->GetPackageNameFromPath("/missing"), "");
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(KOSHelperTest, GetTimezoneForwardsTheAccountService) {
  EXPECT_CALL(*zelo_, GetTimezone()).WillOnce(Return("Europe/Vienna"));
  EXPECT_EQ(helper_->GetTimezone(), "Europe/Vienna");
}

TEST_F(KOSHelperTest, GetUserIdForwardsTheAccountService) {
  EXPECT_CALL(*zelo_, GetUserId()).WillOnce(Return("42"));
  EXPECT_EQ(helper_->GetUserId(), "42");
}

TEST_F(KOSHelperTest, GetVersionJoinsItsPartsInOrder) {
  const InSequence in_order;
  EXPECT_CALL(*core_, GetKeyValue(common::kDefaultVersionPath, common::kMajorVersion)).WillOnce(Return("3"));
  EXPECT_CALL(*core_, GetKeyValue(common::kDefaultVersionPath, common::kMinorVersion)).WillOnce(Return("1"));
  EXPECT_CALL(*core_, GetKeyValue(common::kDefaultVersionPath, common::kBuildNumber)).WillOnce(Return("1200"));
  EXPECT_EQ(helper_->GetVersion(), "3.1-1200");
}

TEST_F(KOSHelperTest, GetVersionWithoutBuildNumberEndsInItsSeparator) {
  EXPECT_CALL(*core_, GetKeyValue(common::kDefaultVersionPath, common::kMajorVersion)).WillOnce(Return("3"));
  EXPECT_CALL(*core_, GetKeyValue(common::kDefaultVersionPath, common::kMinorVersion)).WillOnce(Return("1"));
  EXPECT_CALL(*core_, GetKeyValue(common::kDefaultVersionPath, common::kBuildNumber)).WillOnce(Return(""));
  EXPECT_EQ(helper_->GetVersion(), "3.1-");
}

TEST_F(KOSHelperTest, GetVersionWithoutAnyPartKeepsTheSeparators) {
  EXPECT_CALL(*core_, GetKeyValue).Times(3).WillRepeatedly(Return(""));
  EXPECT_EQ(helper_->GetVersion(), ".-");
}

TEST_F(KOSHelperTest, GetVersionFollowsWhatASubclassOverrides) {
  class Overridden : public KOSHelper {
   public:
    using KOSHelper::KOSHelper;
    std::string GetMajorVersion() const override { return "10"; }
    std::string GetMinorVersion() const override { return "20"; }
    std::string GetBuildNumber() const override { return "30"; }
  };
  EXPECT_EQ(Overridden(core_, zelo_).GetVersion(), "10.20-30");
}

TEST_F(KOSHelperTest, GetPackUpdateServerUrlTakesTheMachinesOwnSettingAlone) {
  EXPECT_CALL(*core_, GetKeyValue(path::kPkgSetting, common::kPackUpdateServer))
      .WillOnce(Return("https://own.example/update"));
  EXPECT_EQ(helper_->GetPackUpdateServerUrl(), "https://own.example/update");
}

TEST_F(KOSHelperTest, GetPackUpdateServerUrlFallsBackToTheDefaults) {
  const InSequence in_order;
  EXPECT_CALL(*core_, GetKeyValue(path::kPkgSetting, common::kPackUpdateServer)).WillOnce(Return(""));
  EXPECT_CALL(*core_, GetKeyValue(path::kDefaultPkgSetting, common::kPackUpdateServer))
      .WillOnce(Return("https://default.example/update"));
  EXPECT_EQ(helper_->GetPackUpdateServerUrl(), "https://default.example/update");
}

TEST_F(KOSHelperTest, GetPackUpdateServerUrlIsEmptyWhenNeitherFileNamesOne) {
  EXPECT_CALL(*core_, GetKeyValue).Times(2).WillRepeatedly(Return(""));
  EXPECT_EQ(helper_->GetPackUpdateServerUrl(), "");
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

// The same operations over the real services and files.
class KOSHelperSystemTest : public testing::Test {
 protected:
  KOSHelperSystemTest() { LogCapture::Clear(); }

  std::unique_ptr<IKOSHelper> helper_ = KOSHelper::Create();
};

TEST_F(KOSHelperSystemTest, ReadsVersionAndUniqueValueOfTheSystem) {
  test::WriteFile(common::kDefaultVersionPath, ORBAMIRA_MAJOR_VERSION_KEY "=3\n" ORBAMIRA_MINOR_VERSION_KEY
                                                                          "=1\n" ORBAMIRA_BUILD_NUMBER_KEY "=1200\n");
  test::WriteFile(common::kDefaultOrbaInfoPath, ORBAMIRA_UNIQUE_KEY "=\"kos_x86_ds9\"\n");
  EXPECT_EQ(helper_->GetVersion(), "3.1-1200");
  EXPECT_EQ(helper_->GetUnique(), "kos_x86_ds9");
}

TEST_F(KOSHelperSystemTest, ReadsNameAndVersionOfAPackage) {
  const test::TempDir folder;
  test::WriteFile(folder.File("INFO"), "package=codec-pack\nversion=1.2.3-0004\n");
  EXPECT_EQ(helper_->GetPackageNameFromPath(folder.File("INFO")), "codec-pack");
  EXPECT_EQ(helper_->GetVersionFromPath(folder.File("INFO")), "1.2.3-0004");
}

TEST_F(KOSHelperSystemTest, TheMachinesServerAddressWinsOverTheDefault) {
  test::WriteFile(path::kPkgSetting, "pack_update_server=https://own.example/update\n");
  test::WriteFile(path::kDefaultPkgSetting, "pack_update_server=https://default.example/update\n");
  EXPECT_EQ(helper_->GetPackUpdateServerUrl(), "https://own.example/update");
}

TEST_F(KOSHelperSystemTest, AnEmptyServerAddressCountsAsMissing) {
  test::WriteFile(path::kPkgSetting, "pack_update_server=\n");
  test::WriteFile(path::kDefaultPkgSetting, "pack_update_server=https://default.example/update\n");
  EXPECT_EQ(helper_->GetPackUpdateServerUrl(), "https://default.example/update");
}

TEST_F(KOSHelperSystemTest, AnEmptySystemGivesEmptyTexts) {
  for (const auto& entry : fs::directory_iterator(test::Root())) {
    fs::remove_all(entry.path());
  }
  EXPECT_EQ(helper_->GetPackUpdateServerUrl(), "");
  EXPECT_EQ(helper_->GetVersion(), ".-");
  EXPECT_EQ(helper_->GetUserId(), "");
  EXPECT_EQ(helper_->GetTimezone(), "");
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(KOSHelperSystemTest, GetTimezoneNamesTheSystemsZone) {
  fs::create_directories(fs::path(path::kLocaltime).parent_path());
  fs::remove(path::kLocaltime);
  fs::create_symlink("/usr/share/zoneinfo/Europe/Vienna", path::kLocaltime);
  EXPECT_EQ(helper_->GetTimezone(), "Europe/Vienna");
}

class KOSHelperFilesTest : public testing::Test {
 protected:
  KOSHelperFilesTest() {
    test::WriteFile(folder_.File("file"), "text");
    fs::create_directory(folder_.File("folder"));
    fs::create_symlink("file", folder_.File("link to file"));
    fs::create_symlink("folder", folder_.File("link to folder"));
    fs::create_symlink("nothing", folder_.File("dangling link"));
    LogCapture::Clear();
  }

  // In every test, nothing but what it expects was logged.
  ~KOSHelperFilesTest() override { EXPECT_THAT(LogCapture::Lines(), IsEmpty()); }

  static void SetMtime(const std::string& path, time_t seconds) {
    const timeval times[] = {{seconds, 0}, {seconds, 999999}};  // NOLINT(modernize-avoid-c-arrays)
    ASSERT_EQ(lutimes(path.c_str(), times), 0);
  }

  static mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
  }

  test::TempDir folder_;
  std::unique_ptr<IKOSHelper> helper_ = KOSHelper::Create();
};

TEST_F(KOSHelperFilesTest, DirExistOnDirectoryIsTrue) { EXPECT_TRUE(helper_->DirExist(folder_.File("folder"))); }

TEST_F(KOSHelperFilesTest, DirExistOnRegularFileIsFalse) { EXPECT_FALSE(helper_->DirExist(folder_.File("file"))); }

TEST_F(KOSHelperFilesTest, DirExistOnMissingPathIsFalse) {
  EXPECT_FALSE(helper_->DirExist(folder_.File("missing")));
  EXPECT_FALSE(helper_->DirExist(folder_.File("file/below")));
  EXPECT_FALSE(helper_->DirExist(""));
}

TEST_F(KOSHelperFilesTest, DirExistOnAnySymbolicLinkIsTrue) {
  EXPECT_TRUE(helper_->DirExist(folder_.File("link to folder")));
  EXPECT_TRUE(helper_->DirExist(folder_.File("link to file")));
  EXPECT_TRUE(helper_->DirExist(folder_.File("dangling link")));
}

TEST_F(KOSHelperFilesTest, FileExistAsksThePlatform) {
  EXPECT_TRUE(helper_->FileExist(folder_.File("file")));
  EXPECT_TRUE(helper_->FileExist(folder_.File("link to file")));
  EXPECT_FALSE(helper_->FileExist(folder_.File("folder")));
  EXPECT_FALSE(helper_->FileExist(folder_.File("missing")));
  EXPECT_FALSE(helper_->FileExist(folder_.File("dangling link")));
}

TEST_F(KOSHelperFilesTest, FileMtimeIsInWholeSeconds) {
  SetMtime(folder_.File("file"), 1700000000);
  EXPECT_EQ(helper_->FileMtime(folder_.File("file")), 1700000000);
}

TEST_F(KOSHelperFilesTest, FileMtimeOnLinkIsTheTargets) {
  SetMtime(folder_.File("file"), 1700000000);
  SetMtime(folder_.File("link to file"), 1600000000);
  EXPECT_EQ(helper_->FileMtime(folder_.File("link to file")), 1700000000);
}

TEST_F(KOSHelperFilesTest, FileMtimeHoldsDatesBeyondThirtyTwoBits) {
  SetMtime(folder_.File("file"), 5000000000);
  EXPECT_EQ(helper_->FileMtime(folder_.File("file")), 5000000000);
}

TEST_F(KOSHelperFilesTest, FileMtimeOfWhatCannotBeLookedAtIsZero) {
  EXPECT_EQ(helper_->FileMtime(folder_.File("missing")), 0);
  EXPECT_EQ(helper_->FileMtime(folder_.File("dangling link")), 0);
}

TEST_F(KOSHelperFilesTest, ChmodSetsTheMode) {
  EXPECT_TRUE(helper_->Chmod(folder_.File("file"), 0604));
  EXPECT_EQ(ModeOf(folder_.File("file")), 0604U);
  EXPECT_TRUE(helper_->Chmod(folder_.File("folder"), 0711));
  EXPECT_EQ(ModeOf(folder_.File("folder")), 0711U);
}

TEST_F(KOSHelperFilesTest, ChmodOnMissingPathFailsAndLogsOnce) {
  EXPECT_FALSE(helper_->Chmod(folder_.File("missing"), 0644));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("kos_helper.cpp", "Faild to chmod on path " + folder_.File("missing"))));
  LogCapture::Clear();
}

}  // namespace
}  // namespace orbamira::updater
