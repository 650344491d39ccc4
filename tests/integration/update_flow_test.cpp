// Whole updates through the library in this process, over everything that it works with: the store, the locks, the
// child programs as they were built, and a web server.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <functional>
#include <locale>
#include <memory>
#include <thread>

#include "platform/constants.h"
#include "platform/paths.h"
#include "tests/support/appliance.h"
#include "tests/support/forked.h"
#include "tests/support/log_capture.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"
#include "updater/pack_manager.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;

using test::Appliance;
using test::ErrorLine;
using test::Forked;
using test::HttpRequest;
using test::HttpResponse;
using test::InfoLine;
using test::LogCapture;
using test::LogLine;
using test::WriteFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Record = std::map<std::string, std::string>;

// The whole record that the status store holds for a status.
Record RecordOf(const std::string& status, const std::string& version = "", const std::string& name = "") {
  return {{"status", status},         {"new_version", version},     {"new_pack_name", name},
          {"download_size_now", "0"}, {"download_size_total", "0"}, {"install_step", ""}};
}

LogLine ManagerError(const std::string& text) { return ErrorLine("pack_manager.cpp", text); }
LogLine HandlerInfo(const std::string& text) { return InfoLine("pack_handler.cpp", text); }

class UpdateFlowTest : public testing::Test {
 protected:
  UpdateFlowTest() {
    LogCapture::Clear();
    Appliance::AddJournal();
  }

  // What a pack leaves besides itself and the previous one, once all is done: nothing.
  static std::vector<std::string> LeftBesideThePack() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(kTargetFolder)) {
      if (entry.path() != path::kPackFolderPath && entry.path() != path::kPreviousPackFolderPath) {
        names.push_back(entry.path().filename());
      }
    }
    return names;
  }

  void InstallFirst(const std::string& version, const std::string& payload) {
    appliance_.Publish(version, payload);
    ASSERT_TRUE(manager_->DownloadAndInstall());
    ASSERT_EQ(Appliance::InstalledPayload(), payload);
    fs::remove(test::Root() / "journal");
    LogCapture::Clear();
  }

  void ExpectUpdateTo(const std::string& version, const std::string& payload) {
    LogCapture::Clear();
    appliance_.Publish(version, payload);
    EXPECT_TRUE(manager_->DownloadAndInstall());
    EXPECT_EQ(Appliance::InstalledPayload(), payload);
    EXPECT_EQ(Appliance::StatusRecord(), RecordOf("up_to_date"));
    EXPECT_THAT(LogCapture::Lines(), IsEmpty());
    EXPECT_THAT(LeftBesideThePack(), IsEmpty());
  }

  Appliance appliance_;
  std::unique_ptr<IPackManager> manager_ = PackManager::Create();
};

TEST_F(UpdateFlowTest, AFirstInstallTellsPluginsAndEndsUpToDate) {
  appliance_.Publish("1.0", "one");
  EXPECT_FALSE(manager_->CheckPackExists());
  EXPECT_EQ(manager_->GetPackLastUpdateTime(), 0);

  EXPECT_TRUE(manager_->CheckNewPack());
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("need_download", "1.0"));
  EXPECT_TRUE(manager_->DownloadAndInstall());

  EXPECT_THAT(Appliance::Journal(),
              ElementsAre("install pre " ORBAMIRA_HEVC_PACK " 1.0 INSTALL: downloading_installing ",
                          "install post " ORBAMIRA_HEVC_PACK " 1.0 INSTALL: downloading_installing install"));
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("up_to_date"));
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  EXPECT_TRUE(manager_->CheckPackExists());
  EXPECT_TRUE(manager_->HasHevcCurrently());
  EXPECT_FALSE(manager_->HasAacCurrently());
  struct stat about {};
  ASSERT_EQ(stat(path::kPackInfoPath, &about), 0);
  EXPECT_EQ(manager_->GetPackLastUpdateTime(), about.st_mtime);
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(HandlerInfo("Current pack version is empty")));
  EXPECT_THAT(LeftBesideThePack(), IsEmpty());
  EXPECT_FALSE(fs::exists(kDownloadFolder));
}

TEST_F(UpdateFlowTest, TheServerIsAskedWithTheSystemsIdentity) {
  appliance_.Publish("1.0", "one");
  ASSERT_TRUE(manager_->CheckNewPack());
  ASSERT_THAT(appliance_.server().Requests(), SizeIs(1));
  EXPECT_EQ(appliance_.server().Requests()[0].method, "GET");
  EXPECT_EQ(appliance_.server().Requests()[0].target,
            "/reply.json?identify=" ORBAMIRA_PACKAGE_ID "&unique=test-appliance&version=1.0.0&kos_version=3.1-1200");
}

TEST_F(UpdateFlowTest, AnUpgradeTellsPluginsOfBothPacksAndEachStep) {
  InstallFirst("1.0", "one");
  appliance_.Publish("2.0", "two");
  EXPECT_TRUE(manager_->CheckNewPack());
  EXPECT_TRUE(manager_->DownloadAndInstall());
  EXPECT_THAT(Appliance::Journal(),
              ElementsAre("uninstall pre " ORBAMIRA_HEVC_PACK " 1.0 UPGRADE: downloading_installing pre_uninstall",
                          "uninstall post " ORBAMIRA_HEVC_PACK " 1.0 UPGRADE: downloading_installing uninstall",
                          "install pre " ORBAMIRA_HEVC_PACK " 2.0 UPGRADE: downloading_installing post_uninstall",
                          "install post " ORBAMIRA_HEVC_PACK " 2.0 UPGRADE: downloading_installing install"));
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("up_to_date"));
  EXPECT_EQ(Appliance::InstalledPayload(), "two");
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
  EXPECT_THAT(LeftBesideThePack(), IsEmpty());
}

TEST_F(UpdateFlowTest, NothingNewLeavesTheRecordAsItIs) {
  InstallFirst("1.0", "one");
  EXPECT_FALSE(manager_->CheckNewPack());
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("up_to_date"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(UpdateFlowTest, TwoStepsRecordWhatWaitsInBetween) {
  InstallFirst("1.0", "one");
  appliance_.Publish("2.0", "two");
  ASSERT_TRUE(manager_->CheckNewPack());
  EXPECT_TRUE(manager_->Download());
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("need_install", "2.0", kHevcPack));
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  EXPECT_THAT(Appliance::Journal(), IsEmpty());

  // The other half is another program's, which knows no more than the record.
  EXPECT_TRUE(PackManager::Create()->Install());
  EXPECT_THAT(Appliance::Journal(),
              ElementsAre("uninstall pre " ORBAMIRA_HEVC_PACK " 1.0 UPGRADE: installing pre_uninstall",
                          "uninstall post " ORBAMIRA_HEVC_PACK " 1.0 UPGRADE: installing uninstall",
                          "install pre " ORBAMIRA_HEVC_PACK " 2.0 UPGRADE: installing post_uninstall",
                          "install post " ORBAMIRA_HEVC_PACK " 2.0 UPGRADE: installing install"));
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("up_to_date"));
  EXPECT_EQ(Appliance::InstalledPayload(), "two");
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(UpdateFlowTest, AnApplicationThatAsksForAacGetsThePackWithIt) {
  InstallFirst("1.0", "one");
  appliance_.Publish("1.0", "one and aac", kHevcAacPack);
  EXPECT_FALSE(manager_->CheckNewPack());
  WriteFile(path::kCodecRequirementsPath, R"({"aac": ["player"]})");
  EXPECT_TRUE(manager_->IsAacNeeded());
  EXPECT_TRUE(manager_->CheckNewPack());  // though the version is the same
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("need_download", "1.0"));
  EXPECT_TRUE(manager_->DownloadAndInstall());
  EXPECT_EQ(Appliance::InstalledPayload(), "one and aac");
  EXPECT_TRUE(manager_->HasAacCurrently());
  EXPECT_FALSE(manager_->IsAacNeeded());
  EXPECT_FALSE(manager_->CheckNewPack());
  EXPECT_THAT(Appliance::Journal().back(), testing::StartsWith("install post " ORBAMIRA_HEVC_AAC_PACK " 1.0 UPGRADE"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(UpdateFlowTest, APackWithAacIsKeptWhenNobodyAsksForItAnyMore) {
  appliance_.Publish("1.0", "one and aac", kHevcAacPack);
  WriteFile(path::kCodecRequirementsPath, R"({"aac": ["player"]})");
  ASSERT_TRUE(manager_->DownloadAndInstall());
  WriteFile(path::kCodecRequirementsPath, R"({"aac": []})");
  appliance_.Publish("2.0", "two");
  EXPECT_FALSE(manager_->CheckNewPack());
  appliance_.Publish("1.5", "more and aac", kHevcAacPack);
  EXPECT_TRUE(manager_->CheckNewPack());
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("need_download", "1.5"));
  EXPECT_TRUE(manager_->DownloadAndInstall());
  EXPECT_EQ(Appliance::InstalledPayload(), "more and aac");
  EXPECT_TRUE(manager_->HasAacCurrently());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(UpdateFlowTest, AChecksumMismatchEndsTheDownloadAndKeepsThePack) {
  InstallFirst("1.0", "one");
  appliance_.Publish("2.0", "two");
  ASSERT_TRUE(manager_->CheckNewPack());
  appliance_.SetFault([](const HttpRequest& request, HttpResponse& response) {
    if (request.target.ends_with(".opk")) {
      response.body[response.body.size() / 2] ^= 1;
    }
  });
  EXPECT_FALSE(manager_->Download());
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("download_failed"));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(ManagerError("Failed to verify checksum of downloaded file.")));
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  EXPECT_THAT(Appliance::Journal(), IsEmpty());

  appliance_.SetFault({});
  EXPECT_TRUE(manager_->Download());
  EXPECT_TRUE(manager_->Install());
  EXPECT_EQ(Appliance::InstalledPayload(), "two");
}

TEST_F(UpdateFlowTest, AnUpdateThatDoesNotVerifyNeverTouchesThePack) {
  InstallFirst("1.0", "one");
  appliance_.Publish("2.0", "two");
  appliance_.SetFault([](const HttpRequest& request, HttpResponse& response) {
    if (request.target.ends_with(".opk")) {
      response.body += '\0';
    }
  });
  EXPECT_FALSE(manager_->DownloadAndInstall());
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("download_install_failed"));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(ManagerError("Failed to verify checksum of downloaded file.")));
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  EXPECT_THAT(Appliance::Journal(), IsEmpty());
  appliance_.SetFault({});
  ExpectUpdateTo("2.0", "two");
}

TEST_F(UpdateFlowTest, APluginThatFailsStopsNothing) {
  InstallFirst("1.0", "one");
  Appliance::AddPlugin("50-fails", "exit 3\n");
  appliance_.Publish("2.0", "two");
  EXPECT_TRUE(manager_->DownloadAndInstall());
  const auto refused = [](const std::string& event, const std::string& timing, const std::string& version) {
    return InfoLine("plugin_notifier.cpp", std::string("Failed to notify plugin: ") + path::kNotifyPluginPyPath +
                                               " --event " + event + " --package " ORBAMIRA_HEVC_PACK " --timing " +
                                               timing + " --version " + version + " --status UPGRADE");
  };
  EXPECT_THAT(
      LogCapture::Lines(),
      ElementsAre(
          refused("uninstall", "pre", "1.0"), ManagerError("Failed to notify: [timing]: pre, [event]: uninstall"),
          refused("uninstall", "post", "1.0"), ManagerError("Failed to notify: [timing]: post, [event]: uninstall"),
          refused("install", "pre", "2.0"), ManagerError("Failed to notify: [timing]: pre, [event]: install"),
          refused("install", "post", "2.0"), ManagerError("Failed to notify: [timing]: post, [event]: install")));
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("up_to_date"));
  EXPECT_EQ(Appliance::InstalledPayload(), "two");
}

// The copy never replaces what is there: an empty folder that someone made in the pack's place makes it fail, while
// the old pack can come back over it.
TEST_F(UpdateFlowTest, ACopyThatFailsBringsTheOldPackBack) {
  InstallFirst("1.0", "one");
  Appliance::AddPlugin("50-in-the-way",
                       R"([ "$2 $6" != "install pre" ] || mkdir ')" + std::string(path::kPackFolderPath) + "'\n");
  appliance_.Publish("2.0", "two");
  EXPECT_FALSE(manager_->DownloadAndInstall());
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("download_install_failed"));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(HandlerInfo("Failed to install pack: Failed to copy extracted pack."),
                                               ManagerError("Failed to install"), ManagerError("Failed to install"),
                                               ManagerError("DoInstall failed")));
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  EXPECT_THAT(LeftBesideThePack(), IsEmpty());
  EXPECT_THAT(Appliance::Journal().back(), testing::StartsWith("install pre"));

  fs::remove(fs::path(path::kPluginFolder) / "50-in-the-way");
  ExpectUpdateTo("2.0", "two");
}

TEST_F(UpdateFlowTest, ACopyThatFailsKeepsTheBackupWhenTheOldPackCannotComeBack) {
  InstallFirst("1.0", "one");
  Appliance::AddPlugin("50-in-the-way", R"([ "$2 $6" != "install pre" ] || mkdir -p ')" +
                                            std::string(path::kPackFolderPath) + "/foreign'\n");
  appliance_.Publish("2.0", "two");
  EXPECT_FALSE(manager_->DownloadAndInstall());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(HandlerInfo(std::string("Failed to rename ") + path::kBackupPackFolderPath + " back to " +
                                      path::kPackFolderPath),
                          HandlerInfo("Failed to install pack: Failed to copy extracted pack."),
                          ManagerError("Failed to install"), ManagerError("Failed to install"),
                          ManagerError("DoInstall failed")));
  EXPECT_EQ(test::ReadFile(fs::path(path::kBackupPackFolderPath) / "codec"), "one");

  // The recovery takes what has no information file for the rest of a pack.
  EXPECT_EQ(Appliance::Packctl({"recover"}).status, 0);
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  EXPECT_THAT(LeftBesideThePack(), IsEmpty());
  fs::remove(fs::path(path::kPluginFolder) / "50-in-the-way");
  ExpectUpdateTo("2.0", "two");
}

TEST_F(UpdateFlowTest, APackThatCannotBeMovedAsideStaysAndNothingIsInstalled) {
  InstallFirst("1.0", "one");
  WriteFile(fs::path(path::kBackupPackFolderPath) / "old", "in the way");
  appliance_.Publish("2.0", "two");
  EXPECT_FALSE(manager_->DownloadAndInstall());
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("download_install_failed"));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(HandlerInfo(std::string("Failed to rename old MIRA pack to ") + path::kBackupPackFolderPath),
                          ManagerError("Failed to uninstall"), ManagerError("Failed to uninstall"),
                          ManagerError("DoInstall failed")));
  EXPECT_THAT(Appliance::Journal(),
              ElementsAre("uninstall pre " ORBAMIRA_HEVC_PACK " 1.0 UPGRADE: downloading_installing pre_uninstall"));
  EXPECT_EQ(Appliance::InstalledPayload(), "one");

  EXPECT_EQ(Appliance::Packctl({"recover"}).status, 0);
  ExpectUpdateTo("2.0", "two");
}

TEST_F(UpdateFlowTest, AnInstallThatFailsKeepsThePackageAndItsName) {
  InstallFirst("1.0", "one");
  appliance_.Publish("2.0", "two");
  ASSERT_TRUE(manager_->CheckNewPack());
  ASSERT_TRUE(manager_->Download());
  WriteFile(fs::path(path::kBackupPackFolderPath) / "old", "in the way");
  EXPECT_FALSE(manager_->Install());
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("install_failed", "2.0", kHevcPack));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(HandlerInfo(std::string("Failed to rename old MIRA pack to ") + path::kBackupPackFolderPath),
                          ManagerError("Failed to uninstall"), ManagerError("Failed to uninstall"),
                          ManagerError("Failed to install")));

  fs::remove_all(path::kBackupPackFolderPath);
  EXPECT_TRUE(manager_->Install());
  EXPECT_EQ(Appliance::InstalledPayload(), "two");
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("up_to_date"));
}

// An install that could not remove it used to be in the way of every later one, which had moved the old pack aside by
// then. What somebody else put there must not become a part of the pack.
TEST_F(UpdateFlowTest, AnInstallOverALeftTemporaryFolderHoldsOnlyThePack) {
  const fs::path left = path::kTempPackFolderPath;
  WriteFile(left / "INFO", "version=\"0.9\"\n");
  WriteFile(left / "codec", "left");
  WriteFile(left / "lib/planted.so", "planted");
  appliance_.Publish("1.0", "one");
  EXPECT_TRUE(manager_->DownloadAndInstall());
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  EXPECT_FALSE(fs::exists(fs::path(path::kPackFolderPath) / "lib"));
  EXPECT_THAT(LeftBesideThePack(), IsEmpty());
}

TEST_F(UpdateFlowTest, APackageThatWasOnlyUnpackedCanBeUnpackedAgainAndInstalled) {
  InstallFirst("1.0", "one");
  appliance_.Publish("2.0", "two");
  ASSERT_TRUE(manager_->CheckNewPack());
  ASSERT_TRUE(manager_->Download());
  const std::unique_ptr<IPackHandler> made = PackHandler::Create();
  const auto* handler = dynamic_cast<PackHandler*>(made.get());
  ASSERT_NE(handler, nullptr);
  WriteFile(fs::path(path::kTempPackFolderPath) / "lib/planted.so", "planted");
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(handler->ExtractOpk(path::kDownloadedOpkPath));
    EXPECT_EQ(test::ReadFile(fs::path(path::kTempPackFolderPath) / "codec"), "two");
    EXPECT_FALSE(fs::exists(fs::path(path::kTempPackFolderPath) / "lib"));
  }
  EXPECT_TRUE(manager_->Install());
  EXPECT_EQ(Appliance::InstalledPayload(), "two");
  EXPECT_THAT(LeftBesideThePack(), IsEmpty());
}

// Under a host with umask 0 everybody could write to the package.
TEST_F(UpdateFlowTest, ModesDoNotDependOnTheUmask) {
  const auto mode = [](const fs::path& entry) { return static_cast<unsigned>(fs::status(entry).permissions()); };
  const mode_t before = umask(0);
  for (const mode_t mask : {0U, 002U, 077U}) {
    umask(mask);
    fs::remove_all(fs::path(kDownloadFolder).parent_path());
    fs::remove_all(kTargetFolder);
    appliance_.Publish(std::to_string(mask + 1), "one");
    ASSERT_TRUE(manager_->CheckNewPack());
    ASSERT_TRUE(manager_->Download());
    EXPECT_EQ(mode(kDownloadFolder), 0700U);
    EXPECT_EQ(mode(path::kDownloadedOpkPath), 0600U);
    EXPECT_TRUE(manager_->Install());
    EXPECT_EQ(mode(kTargetFolder), 0755U);
    EXPECT_EQ(mode(path::kPackFolderPath), 0755U);
    for (const auto& entry : fs::recursive_directory_iterator(path::kPackFolderPath)) {
      EXPECT_EQ(mode(entry) & 0022U, 0U) << entry.path();
      EXPECT_EQ(mode(entry) & 0444U, 0444U) << entry.path();
    }
    EXPECT_EQ(mode(path::kPackStatusFile), 0644U);
  }
  umask(before);
}

// Verified, and yet no pack: what the publisher signed off as such.
TEST_F(UpdateFlowTest, APackageThatIsNoneLeavesTheOldPackAtTheBackup) {
  InstallFirst("1.0", "one");
  appliance_.Publish("2.0", "two");
  ASSERT_TRUE(manager_->CheckNewPack());
  ASSERT_TRUE(manager_->Download());
  WriteFile(path::kDownloadedOpkPath, "no archive");
  EXPECT_FALSE(manager_->Install());
  const std::string package = path::kDownloadedOpkPath;
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(HandlerInfo("Failed to extract opk " + package + " to " + path::kTempPackFolderPath),
                          HandlerInfo("Failed to install pack: Failed to extract opk. path: " + package),
                          ManagerError("Failed to install"), ManagerError("Failed to install"),
                          ManagerError("Failed to install")));
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("install_failed", "2.0", kHevcPack));
  EXPECT_FALSE(manager_->CheckPackExists());
  EXPECT_THAT(LeftBesideThePack(), ElementsAre("." ORBAMIRA_PACK_FOLDER_NAME ".backup"));

  EXPECT_EQ(Appliance::Packctl({"recover"}).status, 0);
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
}

TEST_F(UpdateFlowTest, RemovePackSucceedsWithAndWithoutAPack) {
  EXPECT_TRUE(manager_->RemovePack());
  InstallFirst("1.0", "one");
  EXPECT_TRUE(manager_->RemovePack());
  EXPECT_FALSE(fs::exists(path::kPackFolderPath));
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("up_to_date"));
  EXPECT_THAT(Appliance::Journal(), IsEmpty());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(UpdateFlowTest, AStatusThatForbidsAFlowIsLeftAloneAndNobodyIsAsked) {
  const auto status = PackStatusHelper::Create();
  const auto expect_refused = [&](bool (IPackManager::*flow)() const, const std::string& text, const Record& record) {
    LogCapture::Clear();
    EXPECT_FALSE((manager_.get()->*flow)());
    EXPECT_THAT(LogCapture::Lines(), ElementsAre(ManagerError("Invalid pack status: " + text)));
    EXPECT_EQ(Appliance::StatusRecord(), record);
  };
  expect_refused(&IPackManager::Download, "lost", {});
  expect_refused(&IPackManager::Install, "lost", {});
  status->SetAsNeedDownload("1.0");
  expect_refused(&IPackManager::Install, "need_download", RecordOf("need_download", "1.0"));
  status->SetAsNeedInstall("1.0", kHevcPack);
  expect_refused(&IPackManager::Download, "need_install", RecordOf("need_install", "1.0", kHevcPack));
  status->SetAsDownloadFailed();
  expect_refused(&IPackManager::DownloadAndInstall, "download_failed", RecordOf("download_failed"));
  expect_refused(&IPackManager::Install, "download_failed", RecordOf("download_failed"));
  using SetStatus = void (IPackStatusHelper::*)() const;
  for (const SetStatus set : {static_cast<SetStatus>(&IPackStatusHelper::SetAsInstalling),
                              static_cast<SetStatus>(&IPackStatusHelper::SetAsDownloading),
                              static_cast<SetStatus>(&IPackStatusHelper::SetAsDownloadInstalling)}) {
    (status.get()->*set)();
    const Record record = Appliance::StatusRecord();
    for (const auto flow : {&IPackManager::Download, &IPackManager::Install, &IPackManager::DownloadAndInstall}) {
      expect_refused(flow, record.at("status"), record);
    }
  }
  EXPECT_THAT(appliance_.server().Requests(), IsEmpty());
}

TEST_F(UpdateFlowTest, SizesBeyondThirtyTwoBitsReachTheStore) {
  constexpr std::int64_t kSize = 3LL * 1024 * 1024 * 1024;
  appliance_.Publish("1.0", "one");
  Record seen;
  int packages = 0;
  appliance_.SetFault([&](const HttpRequest& request, HttpResponse& response) {
    if (!request.target.ends_with(".opk")) {
      return;
    }
    if (++packages == 1) {
      response.body = "the beginning";
      response.claimed_length = kSize;
      return;
    }
    seen = Appliance::StatusRecord();
    response = HttpResponse{.status = 404};
  });
  EXPECT_FALSE(manager_->DownloadAndInstall());
  EXPECT_EQ(seen["status"], "downloading_installing");
  EXPECT_EQ(seen["download_size_now"], "13");
  EXPECT_EQ(seen["download_size_total"], std::to_string(kSize));
}

// What a host may have done to its process. Each returns what keeps it up.
struct HostCondition {
  const char* name;
  std::function<std::shared_ptr<void>()> impose;
};

// A host whose streams write 1000 as "1.000".
class GroupedNumbers : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  char do_decimal_point() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

std::shared_ptr<void> Nothing() { return nullptr; }

std::shared_ptr<void> BusyThreads() {
  auto threads = std::make_shared<std::vector<std::jthread>>();
  for (int i = 0; i < 4; ++i) {
    threads->emplace_back([](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        const std::string text(10'000, 'x');  // takes the allocator's lock over and over
        std::this_thread::yield();
      }
    });
  }
  return threads;
}

std::vector<HostCondition> HostConditions() {
  return {
      {"NothingSpecial", [] { return Nothing(); }},
      {"SigchldIgnored",
       [] {
         static_cast<void>(std::signal(SIGCHLD, SIG_IGN));
         return Nothing();
       }},
      {"SigchldReapedByAHandler",
       [] {
         static_cast<void>(std::signal(SIGCHLD, [](int) {
           while (waitpid(-1, nullptr, WNOHANG) > 0) {
           }
         }));
         return Nothing();
       }},
      {"AllSignalsBlocked",
       [] {
         sigset_t all;
         sigfillset(&all);
         pthread_sigmask(SIG_SETMASK, &all, nullptr);
         return Nothing();
       }},
      {"StandardStreamsClosed",
       [] {
         for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
           close(stream);
         }
         return Nothing();
       }},
      {"OtherThreadsAtWork", [] { return BusyThreads(); }},
      {"FewDescriptors",
       [] {
         const rlimit few{32, 32};
         setrlimit(RLIMIT_NOFILE, &few);
         return Nothing();
       }},
      {"UmaskOfASecretKeeper",
       [] {
         umask(0077);
         return Nothing();
       }},
      {"NumbersWithSeparators",
       [] {
         std::locale::global(std::locale(std::locale::classic(), new GroupedNumbers));  // the locale owns it
         return Nothing();
       }},
      {"LinuxThreeTen",
       [] {
         test::BecomeLinux310();
         return Nothing();
       }},
      {"AFileSystemThatCannotRenameToAFreeNameAlone",
       [] {
         test::FailSystemCall(SYS_renameat2, EINVAL);
         return Nothing();
       }},
      {"WorkingFolderGone",
       [] {
         const test::TempDir folder;
         fs::current_path(folder.path());
         return Nothing();
       }},
  };
}

class UpdateFlowHostTest : public UpdateFlowTest, public testing::WithParamInterface<HostCondition> {
 protected:
  // Runs an update in a process of its own under the condition; how many lines it logged, or 100 when it failed.
  static int UpdateUnderCondition() {
    Forked host([] {
      const std::shared_ptr<void> condition = GetParam().impose();
      LogCapture::Clear();
      const bool done = PackManager::Create()->DownloadAndInstall();
      return done ? static_cast<int>(LogCapture::Lines().size()) : 100;
    });
    return host.Wait();
  }
};

TEST_P(UpdateFlowHostTest, AnInstallAndAnUpgradeSucceed) {
  // The second of a size that no small buffer holds.
  for (const auto& [version, payload] : {std::pair{"1.0", std::string("one")}, {"2.0", test::PatternOf(3 << 20)}}) {
    appliance_.Publish(version, payload);
    EXPECT_EQ(UpdateUnderCondition(), 0);
    EXPECT_TRUE(Appliance::InstalledPayload() == payload);  // too long to print
    EXPECT_EQ(Appliance::StatusRecord(), RecordOf("up_to_date"));
    EXPECT_THAT(LeftBesideThePack(), IsEmpty());
    EXPECT_EQ(Appliance::Packctl({"info"}).status, 0);
  }
  EXPECT_THAT(Appliance::Journal(), SizeIs(2 + 4));
  EXPECT_EQ(fs::status(path::kPackFolderPath).permissions(), fs::perms(0755));
  EXPECT_EQ(fs::status(fs::path(path::kPackFolderPath) / "codec").permissions(), fs::perms(0644));
  EXPECT_EQ(fs::status(path::kPackInfoPath).permissions(), fs::perms(0644));
}

// An exit status that gets lost looks like success.
TEST_P(UpdateFlowHostTest, FailedProgramsAreNoticed) {
  Appliance::AddPlugin("50-fails", "exit 3\n");
  appliance_.Publish("1.0", "one");
  EXPECT_EQ(UpdateUnderCondition(), 4);  // two for each notification
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  appliance_.Publish("2.0", "two");
  fs::remove(path::kTarPath);
  EXPECT_EQ(UpdateUnderCondition(), 100);
  EXPECT_EQ(Appliance::StatusRecord(), RecordOf("download_install_failed"));
  EXPECT_EQ(test::ReadFile(fs::path(path::kBackupPackFolderPath) / "codec"), "one");
}

INSTANTIATE_TEST_SUITE_P(Each, UpdateFlowHostTest, testing::ValuesIn(HostConditions()),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace orbamira::updater
