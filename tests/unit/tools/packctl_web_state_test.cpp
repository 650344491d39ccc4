// What "packctl web" finds on the machine.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <json/writer.h>
#include <sys/file.h>

#include <condition_variable>
#include <filesystem>
#include <functional>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/json/json_line.h"
#include "platform/json/json_values.h"
#include "platform/key_value_store.h"
#include "platform/paths.h"
#include "tests/support/test_root.h"
#include "tests/support/written_folders.h"
#include "tools/packctl/record/answered_check.h"
#include "tools/packctl/record/history.h"
#include "tools/packctl/web/state_json.h"
#include "updater/pack_status_helper.h"
#include "updater/update_lock.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

TEST(HolderOfTest, NamesTheProcessThatHoldsTheLock) {
  const std::string file = path::kPackctlLock;
  EXPECT_EQ(HolderOf(file), std::nullopt) << "there is no such file";
  {
    const updater::UpdateLock lock;
    EXPECT_EQ(HolderOf(file), getpid());
  }
  EXPECT_EQ(HolderOf(file), std::nullopt);
}

TEST(HolderOfTest, DoesNotTakeAWaiterOrAnotherLockForAHolder) {
  const std::string file = path::kPackctlLock;
  test::WriteFile(file, "");
  const store::FileLock other(path::kAccountLock);
  const UniqueFd shared(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(shared.get(), LOCK_SH), 0);
  EXPECT_EQ(HolderOf(file), std::nullopt);
}

class StateReaderTest : public testing::Test {
 protected:
  void SetUp() override {
    test::RemoveWrittenFolders();
    fs::create_directories(kTargetFolder);
  }

  static void InstallPack() {
    test::WriteFile(path::kPackInfoPath, "package=\"" ORBAMIRA_HEVC_PACK "\"\nversion=\"1.0\"\n");
    test::WriteFile(path::kHasHevcPath, "");
  }

  static std::unique_ptr<updater::IPackStatusHelper> Status() { return updater::PackStatusHelper::Create(); }

  /// As the page receives it.
  Json::Value Look() { return StateJson(reader_.Look()); }

  Console console_;
  StateReader reader_{console_};
};

TEST_F(StateReaderTest, LookAtAFreshMachineFindsNothingAndNoProblem) {
  const Json::Value state = Look();
  EXPECT_EQ(state["status"], "lost");
  EXPECT_FALSE(state["under_way"].asBool());
  for (const char* member : {"step", "progress", "offer", "installed", "checked", "support_until", "failure"}) {
    EXPECT_TRUE(state.isMember(member)) << member;
    EXPECT_TRUE(state[member].isNull()) << member;
  }
  EXPECT_TRUE(state["requested"].empty());
  EXPECT_TRUE(state["problems"].empty()) << state["problems"];
  EXPECT_FALSE(state["at_work"].asBool());
  EXPECT_FALSE(state["interrupted"].asBool());
  EXPECT_TRUE(HistoryJson(reader_.Look())["entries"].empty());
}

TEST_F(StateReaderTest, LookFindsThePackAndWhatWaits) {
  InstallPack();
  test::WriteFile(path::kCodecRequirementsPath, R"({"aac": ["player", "tv", 7], "hevc": {"camera": {}}})");
  Status()->SetAsNeedInstall("2.0", kHevcAacPack);
  const Json::Value state = Look();
  EXPECT_EQ(state["installed"]["package"], kHevcPack);
  EXPECT_EQ(state["installed"]["version"], "1.0");
  EXPECT_GT(state["installed"]["updated"].asInt64(), 0);
  ASSERT_EQ(state["installed"]["codecs"].size(), 1U);
  EXPECT_EQ(state["installed"]["codecs"][0], "hevc");
  ASSERT_EQ(state["requested"].size(), 2U);
  EXPECT_EQ(state["requested"][0]["codec"], "aac");
  EXPECT_EQ(state["requested"][0]["applications"], ListOf({"player", "tv"}));
  EXPECT_EQ(state["requested"][1]["applications"], ListOf({"camera"}));
  EXPECT_EQ(state["offer"]["package"], kHevcAacPack);
  EXPECT_EQ(state["offer"]["version"], "2.0");
}

TEST_F(StateReaderTest, LookFollowsTheProgressAndTheSteps) {
  const auto status = Status();
  status->SetAsDownloadInstalling(0L, 0L);
  EXPECT_TRUE(Look()["progress"].isNull());
  status->SetAsDownloadInstalling(512, 0);
  Json::Value progress = Look()["progress"];
  EXPECT_EQ(progress["now"].asInt64(), 512);
  EXPECT_TRUE(progress["total"].isNull());
  EXPECT_TRUE(progress["percent"].isNull());
  EXPECT_TRUE(progress["rate"].isNull());
  const auto record = store::FileKeyValueStore::Create(path::kPackStatusFile);
  record->Set(webapi::param::kDownloadSizeNow, "3000000000");
  record->Set(webapi::param::kDownloadSizeTotal, "4000000000");
  progress = Look()["progress"];
  EXPECT_EQ(progress["now"].asInt64(), 3000000000);
  EXPECT_EQ(progress["total"].asInt64(), 4000000000);
  EXPECT_EQ(progress["percent"], 75);
  EXPECT_GT(progress["rate"].asInt64(), 0);
  InstallPack();
  EXPECT_EQ(Look()["installed"]["version"], "1.0") << "nothing of the record has changed: a look at all";
  status->SetAsDownloadInstalling(updater::kStepInstall);
  const Json::Value state = Look();
  EXPECT_TRUE(state["under_way"].asBool());
  EXPECT_EQ(state["step"], "install");
  EXPECT_TRUE(state["progress"].isNull());
}

TEST_F(StateReaderTest, LookTellsWhyAnActionIsNotPermitted) {
  Status()->SetAsDownloadFailed();
  Json::Value why_not = Look()["why_not"];
  EXPECT_EQ(why_not["update"]["code"], "not_permitted");
  EXPECT_EQ(why_not["update"]["message"],
            "the update is not permitted while the recorded status is download_failed (the last download failed)");
  EXPECT_EQ(why_not["install"]["message"],
            "the install is not permitted while the recorded status is download_failed (the last download failed)");
  EXPECT_EQ(why_not["remove"]["code"], "not_installed");
  EXPECT_EQ(why_not["remove"]["message"], "no codec pack is installed");
  for (const char* action : {"check", "download", "recover", "doctor"}) {
    EXPECT_TRUE(why_not.isMember(action)) << action;
    EXPECT_TRUE(why_not[action].isNull()) << action;
  }
  InstallPack();
  Status()->SetAsDownloadInstalling(updater::kStepInstall);
  why_not = Look()["why_not"];
  for (const char* action : {"download", "install", "update", "reinstall", "remove"}) {
    EXPECT_THAT(why_not[action]["message"].asString(),
                testing::HasSubstr(" is not permitted while the recorded status is "));
  }
  Status()->SetAsDownloadInstallFailed();
  EXPECT_TRUE(Look()["why_not"]["update"].isNull());
  EXPECT_TRUE(Look()["why_not"]["remove"].isNull());
}

TEST_F(StateReaderTest, LookTellsOfThePreviousPackAndOfRejectedVersions) {
  EXPECT_EQ(Look()["why_not"]["rollback"]["code"], "no_previous_pack");
  EXPECT_TRUE(Look()["previous_version"].isNull());
  EXPECT_EQ(Look()["rejected"], Json::Value(Json::arrayValue));
  test::WriteFile(path::kPreviousPackFolderPath + std::string("/INFO"), "version=0.9\n");
  EXPECT_EQ(Look()["why_not"]["rollback"]["code"], "not_installed");
  InstallPack();
  test::WriteFile(path::kHealthFile, R"({"rejected": [
    {"version": "1.1", "reason": "it failed its health check", "time": 7},
    {"version": "1.2", "reason": "it was rolled back by hand", "time": 8},
    {"version": "1.3", "reason": "it is red", "time": 9}]})");
  const Json::Value state = Look();
  EXPECT_TRUE(state["why_not"].isMember("rollback"));
  EXPECT_TRUE(state["why_not"]["rollback"].isNull());
  EXPECT_EQ(state["previous_version"], "0.9");
  ASSERT_EQ(state["rejected"].size(), 3U);
  EXPECT_EQ(state["rejected"][0]["version"], "1.1");
  EXPECT_EQ(state["rejected"][0]["code"], "unhealthy");
  EXPECT_EQ(state["rejected"][0]["time"].asInt64(), 7);
  EXPECT_EQ(state["rejected"][1]["code"], "rolled_back");
  EXPECT_EQ(state["rejected"][2]["code"], "other");
  EXPECT_EQ(state["rejected"][2]["reason"], "it is red");
  Status()->SetAsDownloadInstalling(updater::kStepInstall);
  EXPECT_EQ(Look()["why_not"]["rollback"]["code"], "not_permitted");
}

TEST_F(StateReaderTest, LookTellsInterruptedWorkFromWorkUnderWay) {
  std::optional<updater::UpdateLock> lock(std::in_place);
  Status()->SetAsDownloadInstalling(512, 1024);
  Json::Value state = Look();
  EXPECT_TRUE(state["at_work"].asBool());
  EXPECT_FALSE(state["interrupted"].asBool());
  lock.reset();
  state = Look();
  EXPECT_FALSE(state["at_work"].asBool());
  EXPECT_TRUE(state["interrupted"].asBool());
  Status()->SetAsUpToDate();
  EXPECT_FALSE(Look()["interrupted"].asBool());
}

TEST_F(StateReaderTest, LookTellsWhichPackAnUpdateIsAbout) {
  NoteAnsweredCheck("2.0", true);
  Status()->SetAsDownloadInstalling(512, 1024);
  EXPECT_EQ(Look()["offer"]["version"], "2.0");
  Status()->SetAsDownloadInstallFailed();
  EXPECT_EQ(Look()["offer"]["version"], "2.0");
  Status()->SetAsUpToDate();
  EXPECT_TRUE(Look()["offer"].isNull());
  NoteAnsweredCheck("2.0", false);
  Status()->SetAsDownloadInstallFailed();
  EXPECT_TRUE(Look()["offer"].isNull()) << "it was nothing new";
}

HistoryEntry Failed(const std::string& command, std::time_t time) {
  return {.time = time, .command = command, .result = "failed", .exit = 1, .failure = Failure{"no_space", "full", ""}};
}

TEST_F(StateReaderTest, LookTellsOfAFailureUntilItIsMended) {
  AppendToHistory(Failed("update", 10));
  Status()->SetAsDownloadInstallFailed();
  AppendToHistory(Failed("check", 20));
  Json::Value failure = Look()["failure"];
  EXPECT_EQ(failure["command"], "update") << "the record tells of it, whatever was asked since";
  EXPECT_EQ(failure["error"]["code"], "no_space");
  Status()->SetAsUpToDate();
  EXPECT_EQ(Look()["failure"]["command"], "check");
  fs::create_directories(fs::path(kDownloadFolder).parent_path());
  NoteAnsweredCheck("1.0", false);
  const Json::Value state = Look();
  EXPECT_GT(state["checked"].asInt64(), 20);
  EXPECT_TRUE(state["failure"].isNull()) << "a later check was answered";
}

TEST_F(StateReaderTest, LookTellsOfReleasesBesideTheOffer) {
  fs::create_directories(fs::path(kDownloadFolder).parent_path());
  EXPECT_TRUE(Look()["staged"].isNull());
  EXPECT_EQ(Look()["withdrawn"], false);
  test::WriteFile(path::kPackInfoPath, "package=p\nversion=1.2\n");
  NoteAnsweredCheck("1.1", false, {.staged = StagedRelease{"1.3", 12.5}, .withdrawn = "1.2"});
  const Json::Value state = Look();
  EXPECT_EQ(state["staged"]["version"], "1.3");
  EXPECT_EQ(state["staged"]["rollout"], 12.5);
  EXPECT_EQ(state["withdrawn"], true);
  NoteAnsweredCheck("1.1", false, {.withdrawn = "1.1"});
  EXPECT_EQ(Look()["withdrawn"], false) << "another is installed";
}

TEST_F(StateReaderTest, LookTellsHowLongTheMakerSupportsTheAppliance) {
  test::WriteFile(path::kPkgSetting, "support_until=2031-12-31\n");
  EXPECT_EQ(Look()["support_until"], "2031-12-31");
}

// Times in the history are whole seconds.
TEST_F(StateReaderTest, LookTellsOfACheckThatFailedInTheSecondOfAnAnswer) {
  const fs::path note = fs::path(kDownloadFolder).parent_path() / "checked";
  fs::create_directories(note.parent_path());
  NoteAnsweredCheck("1.0", false);
  const fs::file_time_type second = std::chrono::floor<std::chrono::seconds>(fs::last_write_time(note));
  fs::last_write_time(note, second + std::chrono::milliseconds(500));
  AppendToHistory(Failed("check", Look()["checked"].asInt64()));
  fs::last_write_time(path::kHistoryFile, second + std::chrono::milliseconds(501));
  EXPECT_EQ(Look()["failure"]["command"], "check");
  fs::last_write_time(path::kHistoryFile, second + std::chrono::milliseconds(499));
  EXPECT_TRUE(Look()["failure"].isNull()) << "it was answered later";
}

TEST_F(StateReaderTest, LookTellsOfACancelledUpdateButOfNoCancelledCheck) {
  AppendToHistory({.time = 10, .command = "check", .result = "cancelled", .exit = 130});
  EXPECT_TRUE(Look()["failure"].isNull());
  AppendToHistory({.time = 11, .command = "update", .result = "cancelled", .exit = 130});
  Status()->SetAsDownloadInstallFailed();
  EXPECT_EQ(Look()["failure"]["result"], "cancelled");
}

TEST_F(StateReaderTest, LookTellsOfNoFailureThatWasFollowedBySomethingElse) {
  AppendToHistory(Failed("check", 10));
  AppendToHistory({.time = 11, .command = "update", .result = "done"});
  EXPECT_TRUE(Look()["failure"].isNull());
  Status()->SetAsInstallFailed("2.0", kHevcPack);
  EXPECT_TRUE(Look()["failure"].isNull()) << "who failed kept no history";
}

TEST_F(StateReaderTest, LookTellsOfARecordThatCannotBeReadAndOfTheRest) {
  InstallPack();
  store::FileKeyValueStore::Create(path::kPackStatusFile)->Set(webapi::param::kStatus, "dancing");
  Json::Value state = Look();
  EXPECT_TRUE(state["status"].isNull());
  EXPECT_EQ(state["problems"][0], "the recorded status cannot be read; \"packctl recover\" mends it");
  for (const char* action : {"install", "update", "remove"}) {
    EXPECT_EQ(state["why_not"][action]["code"], "record_unreadable");
    EXPECT_EQ(state["why_not"][action]["message"], state["problems"][0]);
  }
  EXPECT_EQ(state["installed"]["version"], "1.0");
  Status()->SetAsUpToDate();
  state = Look();
  EXPECT_EQ(state["status"], "up_to_date");
  EXPECT_TRUE(state["problems"].empty());
}

TEST_F(StateReaderTest, LookTellsOfAHistoryThatCannotBeReadAndOfTheRest) {
  InstallPack();
  fs::create_directories(path::kHistoryFile);
  const Json::Value state = Look();
  EXPECT_EQ(state["installed"]["version"], "1.0");
  ASSERT_EQ(state["problems"].size(), 1U);
  EXPECT_THAT(state["problems"][0].asString(), testing::HasSubstr("is not a file"));
}

TEST_F(StateReaderTest, LookShowsTheNewestThousandEntries) {
  std::string lines;
  for (int i = 0; i < 1010; ++i) {
    lines += JsonLine(HistoryEntry{.time = i, .command = "check", .result = "new_pack"}.ToJson());
  }
  test::WriteFile(path::kHistoryFile, lines);
  const Json::Value history = HistoryJson(reader_.Look())["entries"];
  ASSERT_EQ(history.size(), 1000U);
  EXPECT_EQ(history[0]["time"], 10);
  EXPECT_EQ(history[999]["time"], 1009);
}

TEST_F(StateReaderTest, LookCountsTheChangesOfTheHistory) {
  const unsigned long before = reader_.Look().history_changes;
  Status()->SetAsUpToDate();
  EXPECT_EQ(reader_.Look().history_changes, before);
  AppendToHistory({.time = 1, .command = "check", .result = "new_pack"});
  EXPECT_EQ(reader_.Look().history_changes, before + 1);
}

TEST_F(StateReaderTest, LookTellsWhetherAnotherIsAtWork) {
  const updater::UpdateLock lock;
  EXPECT_TRUE(Look()["at_work"].asBool());
}

/// Counts what a WebState tells of, and waits for it.
class Changes {
 public:
  void Add() {
    const std::lock_guard lock(mutex_);
    ++count_;
    added_.notify_all();
  }

  /// Whether `holds` becomes true at one of the changes; asked again at each, and first at once.
  template <typename Condition>
  bool Await(Condition holds) {
    std::unique_lock lock(mutex_);
    return added_.wait_for(lock, std::chrono::seconds(30), holds);
  }

 private:
  std::mutex mutex_;
  std::condition_variable added_;
  int count_ = 0;
};

/// Each source alone: what is told of one would be found with the look at another.
class WebStateSourceTest : public testing::Test {
 protected:
  WebStateSourceTest() {
    fs::create_directories(kTargetFolder);
    updater::PackStatusHelper::Create()->SetAsUpToDate();
    state_ = std::make_unique<WebState>(console_, [this] { changes_.Add(); });
    EXPECT_TRUE(AwaitSight(
        [](const MachineState& state) { return state.record && state.record->status == updater::kStatusUpToDate; }));
  }

  /// Whether the last look found something for which `holds` is true.
  bool Sees(const std::function<bool(const MachineState&)>& holds) const {
    const auto seen = state_->Latest();
    return seen && holds(seen->state);
  }

  bool AwaitSight(const std::function<bool(const MachineState&)>& holds) {
    return changes_.Await([&] { return Sees(holds); });
  }

  Console console_;
  Changes changes_;
  std::unique_ptr<WebState> state_;
};

TEST_F(WebStateSourceTest, ToldOfAChangeOfTheRecord) {
  EXPECT_GT(state_->Latest()->time, 0);
  updater::PackStatusHelper::Create()->SetAsNeedDownload("2.0");
  EXPECT_TRUE(AwaitSight([](const MachineState& state) { return state.record && state.record->new_version == "2.0"; }));
}

TEST_F(WebStateSourceTest, ToldOfANewEntryOfTheHistory) {
  AppendToHistory({.time = 7, .command = "check", .result = "new_pack"});
  EXPECT_TRUE(AwaitSight([](const MachineState& state) { return state.history.size() == 1; }));
}

TEST_F(WebStateSourceTest, ToldOfAChangeOfTheRequirements) {
  test::WriteFile(path::kCodecRequirementsPath, R"({"hevc": ["player"]})");
  EXPECT_TRUE(
      AwaitSight([](const MachineState& state) { return state.codecs && state.codecs->requested.size() == 1; }));
}

TEST_F(WebStateSourceTest, LooksAgainWhenItIsAsked) {
  test::WriteFile(path::kPackInfoPath, "package=\"" ORBAMIRA_HEVC_PACK "\"\nversion=\"1.0\"\n");
  state_->LookAgain();
  EXPECT_TRUE(AwaitSight(
      [](const MachineState& state) { return state.installed && state.installed->identity.version == "1.0"; }));
}

TEST(WebStateTest, SeesTheEndOfSomebodysWork) {
  fs::create_directories(kTargetFolder);
  Console console;
  Changes changes;
  std::optional<updater::UpdateLock> lock(std::in_place);
  const WebState state(console, [&] { changes.Add(); });
  const auto sees_work = [&state] {
    const auto seen = state.Latest();
    return seen && seen->state.at_work;
  };
  ASSERT_TRUE(changes.Await(sees_work));
  lock.reset();
  ASSERT_TRUE(changes.Await([&] { return !sees_work(); }));
}

TEST(WebStateTest, LatestDoesNotWaitForALockThatSomebodyKeeps) {
  fs::create_directories(kTargetFolder);
  Console console;
  std::optional<store::FileLock> lock(path::kPackStatusLock);
  Changes changes;
  const WebState state(console, [&] { changes.Add(); });
  EXPECT_FALSE(state.Latest());
  lock.reset();
  EXPECT_TRUE(changes.Await([&] { return state.Latest().has_value(); }));
}

}  // namespace
}  // namespace orbamira::packctl
