#include "updater/recovery.h"

#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/syscall.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <ostream>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "platform/constants.h"
#include "platform/key_value_store.h"
#include "platform/paths.h"
#include "tests/support/disk_calls.h"
#include "tests/support/error_text.h"
#include "tests/support/log_capture.h"
#include "tests/support/mocks.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"
#include "tests/support/written_folders.h"
#include "updater/health.h"
#include "updater/health_record.h"
#include "updater/pack_status_helper.h"
#include "updater/status_record.h"
#include "updater/update_lock.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;

using test::ErrorLine;
using test::InfoLine;
using test::LogCapture;
using test::ReadFile;
using test::WriteFile;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAre;

RecoveryReport Recovered() { return Recover(UpdateLock()); }

class RecoveryTest : public testing::Test {
 protected:
  RecoveryTest() {
    for (const auto& entry : fs::directory_iterator(test::Root())) {
      fs::remove_all(entry.path());
    }
    fs::create_directories(kTargetFolder);
    LogCapture::Clear();
  }

  static void MakePack(const fs::path& folder, const std::string& version) {
    WriteFile(folder / "INFO", "package=" ORBAMIRA_HEVC_PACK "\nversion=" + version + "\n");
    WriteFile(folder / "lib/codec.so", version);
  }

  static std::string PackVersion() { return ReadFile(fs::path(path::kPackFolderPath) / "lib/codec.so"); }

  static std::unique_ptr<IPackStatusHelper> Status() { return PackStatusHelper::Create(); }

  static PackStatus Recorded() { return Status()->GetPackStatus(); }

  // Every path below the root, so that a test sees everything that is left.
  static std::set<std::string> Left(const fs::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  static void ExpectNothingLeftToDo() {
    const RecoveryReport again = Recovered();
    EXPECT_THAT(again.done, IsEmpty());
    EXPECT_THAT(again.failed, IsEmpty());
  }
};

TEST_F(RecoveryTest, RecoverOnAnEmptySystemMakesTheFoldersAndFindsNothingElse) {
  fs::remove_all(fs::path(path::kPackStatusFile).parent_path());
  const RecoveryReport report = Recovered();
  EXPECT_THAT(report.done, ElementsAre(std::string("created the missing folder ") + kTargetFolder));
  EXPECT_THAT(report.failed, IsEmpty());
  EXPECT_EQ(Recorded(), kStatusLost);
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverLeavesASystemInOrderAlone) {
  MakePack(path::kPackFolderPath, "1");
  WriteFile(path::kAccountFile, "{}");
  Status()->SetAsUpToDate();
  ExpectNothingLeftToDo();
  EXPECT_EQ(PackVersion(), "1");
  EXPECT_EQ(ReadFile(path::kAccountFile), "{}");
  EXPECT_EQ(Recorded(), kStatusUpToDate);
}

TEST_F(RecoveryTest, RecoverSyncsTheFolderOfThePackThatItBroughtBack) {
  Status()->SetAsUpToDate();
  MakePack(path::kBackupPackFolderPath, "1");
  const test::DiskCalls calls;
  Recovered();
  const auto name = [](const fs::path& path) { return path.filename().string(); };
  ASSERT_GE(calls.all().size(), 2U);
  EXPECT_EQ(calls.all()[0], "rename " + name(path::kBackupPackFolderPath) + " to " + name(path::kPackFolderPath));
  EXPECT_EQ(calls.all()[1], "sync " + name(kTargetFolder));
}

TEST_F(RecoveryTest, RecoverBringsTheBackupBackWithoutAPack) {
  Status()->SetAsUpToDate();
  MakePack(path::kBackupPackFolderPath, "1");
  const RecoveryReport report = Recovered();
  EXPECT_THAT(report.done, ElementsAre(std::string("restored the previous pack to ") + path::kPackFolderPath));
  EXPECT_EQ(PackVersion(), "1");
  EXPECT_FALSE(fs::exists(path::kBackupPackFolderPath));
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverMakesTheBackupBesideANewPackThePreviousPack) {
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kBackupPackFolderPath, "1");
  MakePack(path::kPreviousPackFolderPath, "0");
  EXPECT_THAT(Recovered().done, Contains("put the pack's backup away"));
  EXPECT_EQ(PackVersion(), "2");
  EXPECT_FALSE(fs::exists(path::kBackupPackFolderPath));
  EXPECT_EQ(ReadFile(fs::path(path::kPreviousPackFolderPath) / "lib/codec.so"), "1");
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverLeavesABackupThatCannotBeKept) {
  Status()->SetAsUpToDate();
  Rejections rejections;
  rejections.Add({"2", "bad", 1});
  rejections.Write();
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kBackupPackFolderPath, "1");
  test::WithFailingCall(SYS_renameat2, EIO, [] { EXPECT_FALSE(Recovered().failed.empty()); });
  EXPECT_TRUE(fs::exists(fs::path(path::kBackupPackFolderPath) / "INFO"));
  EXPECT_EQ(PackVersion(), "2");
  Recovered();
  EXPECT_EQ(PackVersion(), "1");
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverClearsTheRestOfARemovalThatWasCutShort) {
  WriteFile(fs::path(path::kPackFolderPath) / "lib/codec.so", "1");
  Recovered();
  EXPECT_FALSE(fs::exists(path::kPackFolderPath));
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverPrefersTheBackupToTheRestOfAPack) {
  WriteFile(fs::path(path::kPackFolderPath) / "lib/codec.so", "2");
  MakePack(path::kBackupPackFolderPath, "1");
  Recovered();
  EXPECT_EQ(PackVersion(), "1");
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverRemovesTheRestOfAPreviousPack) {
  const std::string rest = std::string(kTargetFolder) + "/.removed.aZ09xy";
  WriteFile(fs::path(path::kPreviousPackFolderPath) / "lib/codec.so", "1");
  MakePack(rest, "0");
  EXPECT_THAT(Recovered().done, ElementsAre(std::string("removed the previous pack ") + path::kPreviousPackFolderPath,
                                            "removed the rest of an interrupted removal " + rest));
  EXPECT_FALSE(fs::exists(path::kPreviousPackFolderPath));
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverDoesNotBringTheRestOfABackupBack) {
  WriteFile(fs::path(path::kBackupPackFolderPath) / "lib/codec.so", "1");
  Recovered();
  EXPECT_FALSE(fs::exists(path::kPackFolderPath));
  EXPECT_FALSE(fs::exists(path::kBackupPackFolderPath));
}

TEST_F(RecoveryTest, RecoverKeepsAPackThatIsALinkToAPlaceNotMountedYet) {
  fs::create_symlink(test::Root() / "volume/" ORBAMIRA_PACK_FOLDER_NAME, path::kPackFolderPath);
  ExpectNothingLeftToDo();
  EXPECT_TRUE(fs::is_symlink(path::kPackFolderPath));
}

TEST_F(RecoveryTest, RecoverRemovesTemporaryAndHalfBuiltFolders) {
  Status()->SetAsUpToDate();
  MakePack(path::kPackFolderPath, "1");
  MakePack(path::kTempPackFolderPath, "2");
  MakePack(fs::path(kTargetFolder) / "." ORBAMIRA_PACK_FOLDER_NAME ".partial.x7Yz01", "2");
  MakePack(fs::path(kTargetFolder) / "." ORBAMIRA_PACK_FOLDER_NAME ".partial.A", "2");
  MakePack(fs::path(kTargetFolder) / "." ORBAMIRA_PACK_FOLDER_NAME ".partial.2", "2");
  MakePack(fs::path(kTargetFolder) / ".other-pack.partial.2", "2");
  MakePack(fs::path(kTargetFolder) / "other-pack", "2");
  EXPECT_THAT(Recovered().done, ElementsAre(std::string("removed the unpacked pack ") + path::kTempPackFolderPath,
                                            HasSubstr("." ORBAMIRA_PACK_FOLDER_NAME ".partial.2"),
                                            HasSubstr("." ORBAMIRA_PACK_FOLDER_NAME ".partial.A"),
                                            HasSubstr("." ORBAMIRA_PACK_FOLDER_NAME ".partial.x7Yz01")));
  EXPECT_THAT(Left(kTargetFolder), UnorderedElementsAre(".other-pack.partial.2", kPackFolderName, "other-pack"));
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverEndsRemovalsThatWereCut) {
  Status()->SetAsUpToDate();
  const fs::path cache = fs::path(kDownloadFolder).parent_path();
  MakePack(path::kPackFolderPath, "1");
  MakePack(fs::path(kTargetFolder) / ".removed.aZ09xy" / "." ORBAMIRA_PACK_FOLDER_NAME ".backup", "0");
  MakePack(fs::path(kTargetFolder) / ".removed.aZ09x", "0");
  MakePack(fs::path(kTargetFolder) / "removed.aZ09xy", "0");
  WriteFile(cache / ".removed.aZ09xy" / "download" / "pack.opk", "package");
  const std::string rest = "removed the rest of an interrupted removal ";
  EXPECT_THAT(Recovered().done,
              ElementsAre(rest + kTargetFolder + "/.removed.aZ09xy", rest + (cache / ".removed.aZ09xy").string()));
  EXPECT_THAT(Left(kTargetFolder), UnorderedElementsAre(".removed.aZ09x", kPackFolderName, "removed.aZ09xy"));
  EXPECT_THAT(Left(cache), IsEmpty());
  ExpectNothingLeftToDo();
}

// Another program may bring back a backup that it finds.
TEST_F(RecoveryTest, ARecoveryThatIsCutLeavesNoPartOfABackup) {
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kBackupPackFolderPath, "1");
  MakePack(path::kTempPackFolderPath, "2");
  test::WithFailingCall(SYS_unlinkat, EIO, [] {
    const RecoveryReport report = Recovered();
    EXPECT_THAT(report.failed, Not(IsEmpty()));
    EXPECT_THAT(report.done, Not(Contains(HasSubstr("removed"))));
  });
  EXPECT_FALSE(fs::exists(path::kBackupPackFolderPath));
  Recovered();
  EXPECT_THAT(Left(kTargetFolder), UnorderedElementsAre(kPackFolderName, "." ORBAMIRA_PACK_FOLDER_NAME ".previous"));
}

TEST_F(RecoveryTest, RecoverRemovesALinkWithoutWhatItPointsTo) {
  MakePack(test::Root() / "elsewhere", "1");
  fs::create_symlink(test::Root() / "elsewhere", path::kTempPackFolderPath);
  fs::create_symlink(test::Root() / "elsewhere", fs::path(kTargetFolder) / "." ORBAMIRA_PACK_FOLDER_NAME ".partial.1");
  Recovered();
  EXPECT_THAT(Left(kTargetFolder), IsEmpty());
  EXPECT_TRUE(fs::exists(test::Root() / "elsewhere/INFO"));
}

TEST_F(RecoveryTest, RecoverRemovesTheTemporaryFilesOfStoreAndAccount) {
  Status()->SetAsUpToDate();
  const std::string store = path::kPackStatusFile;
  const std::string account = path::kAccountFile;
  for (const std::string& file : {store, account}) {
    WriteFile(file + ".aZ09xy", "temporary");
    WriteFile(file + ".broken", "kept");
    WriteFile(file + ".backup1", "kept");
    WriteFile(file + ".a-b_cd", "kept");
    WriteFile(file + "x.aZ09xy", "kept");
  }
  const RecoveryReport report = Recovered();
  EXPECT_THAT(report.done, ElementsAre("removed the temporary file " + store + ".aZ09xy",
                                       "removed the temporary file " + account + ".aZ09xy"));
  for (const std::string& file : {store, account}) {
    for (const char* kept : {".broken", ".backup1", ".a-b_cd", "x.aZ09xy"}) {
      EXPECT_TRUE(fs::exists(file + kept)) << file << kept;
    }
  }
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverRemovesTheTemporaryFilesOfEveryReplacedFile) {
  Status()->SetAsUpToDate();
  const std::string asked = std::string(path::kCodecRequirementsPath) + ".new";
  WriteFile(asked, "an application's");
  std::vector<std::string> temporary;
  for (const char* const file :
       {path::kPackStatusFile, path::kAcceptedPackagesFile, path::kAccountFile, path::kHealthFile,
        path::kHealthyPackFile, path::kOfferFile, path::kHoldFile, path::kTempPluginAppIdPath}) {
    for (const char* const end : {".aZ09xy", ".new"}) {
      temporary.push_back(std::string(file) + end);
      WriteFile(temporary.back(), "half");
    }
  }
  EXPECT_THAT(FindLeftovers(), ElementsAreArray(temporary));
  EXPECT_THAT(Recovered().done, SizeIs(temporary.size()));
  for (const std::string& file : temporary) {
    EXPECT_FALSE(fs::exists(file)) << file;
  }
  EXPECT_TRUE(fs::exists(asked));
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverRemovesThePluginsOldAnswerAndItsTemporaryFiles) {
  const fs::path answer = path::kTempPluginAppIdPath;
  WriteFile(answer, "[]");
  WriteFile(answer.string() + ".k3x9ab", "[");
  WriteFile(answer.parent_path() / "other", "");
  EXPECT_THAT(Recovered().done, SizeIs(2));
  EXPECT_THAT(Left(answer.parent_path()), ElementsAre("lock", "other"));
  ExpectNothingLeftToDo();
}

struct StatusCase {
  const char* name;
  std::function<void(const IPackStatusHelper&)> record;
  bool has_package;
  PackStatus expected;
  bool keeps_download;
};

void PrintTo(const StatusCase& param, std::ostream* out) { *out << param.name; }

class RecoveryStatusTest : public RecoveryTest, public testing::WithParamInterface<StatusCase> {};

TEST_P(RecoveryStatusTest, RecoverMendsTheStatusAndClearsTheDownload) {
  const StatusCase& param = GetParam();
  param.record(*Status());
  const StatusRecord before = ReadStatusRecord();
  WriteFile(fs::path(kDownloadFolder) / "other", "");
  if (param.has_package) {
    WriteFile(path::kDownloadedOpkPath, "package");
  }
  const RecoveryReport report = Recovered();
  EXPECT_THAT(report.failed, IsEmpty());
  EXPECT_EQ(Recorded(), param.expected);
  EXPECT_EQ(fs::exists(kDownloadFolder), param.keeps_download);
  if (before.status == param.expected) {
    EXPECT_EQ(ReadStatusRecord(), before);
  } else {
    EXPECT_THAT(report.done, Contains(HasSubstr("changed the recorded status from ")));
  }
  ExpectNothingLeftToDo();
}

using Helper = IPackStatusHelper;

INSTANTIATE_TEST_SUITE_P(
    AllStatuses, RecoveryStatusTest,
    testing::Values(StatusCase{"Lost", [](const Helper&) {}, true, kStatusLost, false},
                    StatusCase{"NeedDownload", [](const Helper& h) { h.SetAsNeedDownload("2"); }, true,
                               kStatusNeedDownload, false},
                    StatusCase{"Downloading", [](const Helper& h) { h.SetAsDownloading(1, 2); }, true,
                               kStatusDownloadFailed, false},
                    StatusCase{"DownloadFailed", [](const Helper& h) { h.SetAsDownloadFailed(); }, true,
                               kStatusDownloadFailed, false},
                    StatusCase{"NeedInstall", [](const Helper& h) { h.SetAsNeedInstall("2", "n"); }, true,
                               kStatusNeedInstall, true},
                    StatusCase{"NeedInstallWithoutPackage", [](const Helper& h) { h.SetAsNeedInstall("2", "n"); },
                               false, kStatusDownloadInstallFailed, false},
                    StatusCase{"Installing", [](const Helper& h) { h.SetAsInstalling(kStepInstall); }, true,
                               kStatusDownloadInstallFailed, false},
                    StatusCase{"InstallFailed", [](const Helper& h) { h.SetAsInstallFailed("2", "n"); }, true,
                               kStatusInstallFailed, true},
                    StatusCase{"InstallFailedWithoutPackage", [](const Helper& h) { h.SetAsInstallFailed("2", "n"); },
                               false, kStatusDownloadInstallFailed, false},
                    StatusCase{"DownloadingInstalling", [](const Helper& h) { h.SetAsDownloadInstalling(1, 2); }, true,
                               kStatusDownloadInstallFailed, false},
                    StatusCase{"DownloadInstallFailed", [](const Helper& h) { h.SetAsDownloadInstallFailed(); }, true,
                               kStatusDownloadInstallFailed, false},
                    StatusCase{"UpToDate", [](const Helper& h) { h.SetAsUpToDate(); }, true, kStatusUpToDate, false}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_F(RecoveryTest, RecoverTakesAPackWithoutARecordForUpToDate) {
  MakePack(path::kPackFolderPath, "1");
  EXPECT_THAT(Recovered().done, ElementsAre("changed the recorded status from lost to up_to_date"));
  EXPECT_EQ(Recorded(), kStatusUpToDate);
  ExpectNothingLeftToDo();
}

// The record was cut while the update was midway.
TEST_F(RecoveryTest, RecoverTakesABackupWithoutARecordForAFailure) {
  MakePack(path::kBackupPackFolderPath, "1");
  Recovered();
  EXPECT_EQ(Recorded(), kStatusDownloadInstallFailed);
  EXPECT_EQ(PackVersion(), "1");
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverEndsAnUpdateOfWhichOnlyTheLastRecordIsMissing) {
  MakePack(path::kPackFolderPath, "2");
  for (const auto& record :
       {std::function<void(InstallStep)>([](InstallStep step) { Status()->SetAsInstalling(step); }),
        std::function<void(InstallStep)>([](InstallStep step) { Status()->SetAsDownloadInstalling(step); })}) {
    record(kStepPostInstall);
    Recovered();
    EXPECT_EQ(Recorded(), kStatusUpToDate);
    record(kStepInstall);  // not all plugins may have been told
    Recovered();
    EXPECT_EQ(Recorded(), kStatusDownloadInstallFailed);
    record(kStepPostUninstall);  // in the library's own words the same step
    Recovered();
    EXPECT_EQ(Recorded(), kStatusDownloadInstallFailed);
  }
  fs::remove_all(path::kPackFolderPath);
  Status()->SetAsInstalling(kStepPostInstall);
  Recovered();
  EXPECT_EQ(Recorded(), kStatusDownloadInstallFailed);
}

TEST_F(RecoveryTest, ConfirmInstallBelievesThePackAlone) {
  const UpdateLock lock;
  Status()->SetAsUpToDate();
  MakePack(path::kPackFolderPath, "2");
  MakePack(fs::path(kTargetFolder) / ".removed.aZ09xy", "1");
  EXPECT_TRUE(ConfirmInstall(lock, *Status()));
  EXPECT_EQ(Recorded(), kStatusUpToDate);
  EXPECT_THAT(Left(kTargetFolder), ElementsAre(kPackFolderName));
  fs::remove_all(path::kPackFolderPath);
  LogCapture::Clear();
  EXPECT_FALSE(ConfirmInstall(lock, *Status()));
  EXPECT_EQ(Recorded(), kStatusDownloadInstallFailed);
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(ErrorLine("recovery.cpp", "The new pack did not get into place")));
}

TEST_F(RecoveryTest, ConfirmInstallMakesTheBackupThePreviousPack) {
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kBackupPackFolderPath, "1");
  EXPECT_TRUE(ConfirmInstall(UpdateLock(), *Status()));
  EXPECT_THAT(Left(kTargetFolder), UnorderedElementsAre(kPackFolderName, "." ORBAMIRA_PACK_FOLDER_NAME ".previous"));
}

TEST_F(RecoveryTest, ConfirmInstallLogsABackupThatCannotBeKept) {
  MakePack(path::kPackFolderPath, "2");
  MakePack(path::kBackupPackFolderPath, "1");
  test::WithFailingCall(SYS_unlinkat, EIO, [] { EXPECT_TRUE(ConfirmInstall(UpdateLock(), *Status())); });
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("recovery.cpp", std::string("Failed to keep the pack's backup: ") +
                                                        path::kPreviousPackFolderPath + ": " + test::ErrorText(EIO))));
}

TEST_F(RecoveryTest, ConfirmInstallLogsAMissingPackThatCannotBeRecorded) {
  test::MockStatusHelper status;
  EXPECT_CALL(status, SetAsDownloadInstallFailed())
      .WillOnce(testing::Throw(std::system_error(EIO, std::generic_category())));
  EXPECT_THROW(static_cast<void>(ConfirmInstall(UpdateLock(), status)), std::system_error);
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(ErrorLine("recovery.cpp", "The new pack did not get into place")));
}

TEST_F(RecoveryTest, RecoverReplacesAStatusThatCannotBeDecoded) {
  store::FileKeyValueStore::Create(path::kPackStatusFile)->Set(webapi::param::kStatus, "dancing");
  const RecoveryReport report = Recovered();
  EXPECT_THAT(report.done,
              ElementsAre("changed the recorded status from an unreadable text to download_install_failed"));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine("recovery.cpp", "Recovery: the recorded status cannot be read"),
                          InfoLine("recovery.cpp", "Recovery: " + report.done[0])));
  EXPECT_EQ(Recorded(), kStatusDownloadInstallFailed);
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverReplacesASizeThatCannotBeDecoded) {
  store::FileKeyValueStore::Create(path::kPackStatusFile)->Set(webapi::param::kDownloadSizeNow, "many");
  Recovered();
  EXPECT_EQ(Recorded(), kStatusDownloadInstallFailed);
}

TEST_F(RecoveryTest, RecoverTakesAStoreThatIsNoStoreForLost) {
  WriteFile(path::kPackStatusFile, R"({"status": "insta)");
  EXPECT_THAT(Recovered().failed, IsEmpty());
  EXPECT_EQ(Recorded(), kStatusLost);
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverSetsAFolderInPlaceOfTheStoreAside) {
  WriteFile(fs::path(path::kPackStatusFile) / "file", "text");
  EXPECT_THAT(Recovered().failed, IsEmpty());
  EXPECT_EQ(Recorded(), kStatusLost);
  EXPECT_EQ(ReadFile(std::string(path::kPackStatusFile) + ".broken/file"), "text");
  ExpectNothingLeftToDo();
}

TEST_F(RecoveryTest, RecoverLogsWhatItDid) {
  Status()->SetAsUpToDate();
  MakePack(path::kBackupPackFolderPath, "1");
  const RecoveryReport report = Recovered();
  ASSERT_THAT(report.done, SizeIs(1));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(InfoLine("recovery.cpp", "Recovery: " + report.done[0])));
}

TEST_F(RecoveryTest, RecoverTellsOfItsStepsInTheirOrder) {
  const std::string pack = path::kPackFolderPath;
  const std::string rest = std::string(kTargetFolder) + "/.removed.aZ09xy";
  const std::string built = std::string(kTargetFolder) + "/." ORBAMIRA_PACK_FOLDER_NAME ".partial.2";
  const std::string temporary = std::string(path::kHoldFile) + ".new";
  Rejections rejections;
  rejections.Add({"2", "bad", 1});
  rejections.Write();
  Status()->SetAsDownloading();
  WriteFile(pack + "/lib/codec.so", "3");
  MakePack(path::kBackupPackFolderPath, "2");
  MakePack(path::kPreviousPackFolderPath, "1");
  MakePack(path::kTempPackFolderPath, "3");
  MakePack(built, "3");
  MakePack(rest, "0");
  WriteFile(temporary, "half");
  WriteFile(path::kTempPluginAppIdPath, "[]");
  WriteFile(path::kDownloadedOpkPath, "half");
  LogCapture::Clear();
  const RecoveryReport report = Recovered();
  EXPECT_THAT(report.done, ElementsAre("removed the rest of a pack " + pack, "restored the previous pack to " + pack,
                                       std::string("removed the unpacked pack ") + path::kTempPackFolderPath,
                                       "removed the half-built pack " + built, "took the rejected pack 2 back",
                                       "removed the rest of an interrupted removal " + rest,
                                       "removed the temporary file " + temporary,
                                       std::string("removed the plugins' old answer ") + path::kTempPluginAppIdPath,
                                       "changed the recorded status from downloading to download_failed",
                                       std::string("removed the download ") + kDownloadFolder));
  std::vector<test::LogLine> lines;
  for (const std::string& done : report.done) {
    lines.push_back(InfoLine("recovery.cpp", "Recovery: " + done));
  }
  EXPECT_EQ(LogCapture::Lines(), lines);
  EXPECT_EQ(PackVersion(), "1");
}

// What a host then installs without a word to the updater is another pack.
TEST_F(RecoveryTest, RecoverTakesThePackThatItFindsForHealthy) {
  MakePack(path::kPackFolderPath, "1");
  Recovered();
  EXPECT_FALSE(IsUnchecked());
  MakePack(path::kPackFolderPath, "2");
  EXPECT_TRUE(IsUnchecked());
}

TEST_F(RecoveryTest, RecoverGoesOnAfterAStepThatFailed) {
  // A file where the account's folder belongs, and a link through it for a status store: neither can be used.
  WriteFile(fs::path(path::kAccountFile).parent_path(), "");
  fs::create_symlink(path::kAccountFile, path::kPackStatusFile);
  MakePack(path::kBackupPackFolderPath, "1");
  WriteFile(path::kTempPluginAppIdPath, "[]");
  WriteFile(path::kDownloadedOpkPath, "may be needed");

  const RecoveryReport report = Recovered();
  EXPECT_THAT(report.failed, ElementsAre(HasSubstr("cannot remove the temporary files of the account: "),
                                         std::string("cannot mend the recorded status: cannot use the status store ") +
                                             path::kPackStatusFile));
  for (const std::string& failure : report.failed) {
    EXPECT_THAT(LogCapture::Lines(), Contains(ErrorLine("recovery.cpp", "Recovery: " + failure)));
  }
  EXPECT_EQ(PackVersion(), "1");
  EXPECT_FALSE(fs::exists(path::kTempPluginAppIdPath));
  EXPECT_TRUE(fs::exists(path::kDownloadedOpkPath)) << "without a known status the package may be what is needed";
}

TEST_F(RecoveryTest, RecoverReportsAFileInPlaceOfTheFolderOfPacks) {
  fs::remove_all(kTargetFolder);
  WriteFile(kTargetFolder, "a file in the way");
  EXPECT_THAT(Recovered().failed,
              Contains(std::string("cannot make the folders: ") + kTargetFolder + ": " + test::ErrorText(ENOTDIR)));
  EXPECT_EQ(ReadFile(kTargetFolder), "a file in the way");
}

TEST_F(RecoveryTest, RecoverReportsFoldersThatCannotBeMade) {
  test::RemoveWrittenFolders();
  WriteFile(fs::path(kTargetFolder).parent_path(), "a file in the way");
  EXPECT_THAT(Recovered().failed, Contains(HasSubstr("cannot make the folders: ")));
}

}  // namespace
}  // namespace orbamira::updater
