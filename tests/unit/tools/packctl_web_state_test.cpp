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
#include "platform/key_value_store.h"
#include "platform/paths.h"
#include "tests/support/test_root.h"
#include "tests/support/written_folders.h"
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
  EXPECT_EQ(state["meaning"], "nothing is recorded yet");
  EXPECT_FALSE(state["under_way"].asBool());
  for (const char* member : {"step", "progress", "offer", "installed", "why_no_update"}) {
    EXPECT_TRUE(state.isMember(member)) << member;
    EXPECT_TRUE(state[member].isNull()) << member;
  }
  EXPECT_TRUE(state["requested"].empty());
  EXPECT_TRUE(state["history"].empty());
  EXPECT_TRUE(state["problems"].empty()) << state["problems"];
  EXPECT_FALSE(state["at_work"].asBool());
}

TEST_F(StateReaderTest, LookFindsThePackAndWhatWaits) {
  InstallPack();
  test::WriteFile(path::kCodecRequirementsPath, R"({"aac": ["player"]})");
  Status()->SetAsNeedInstall("2.0", kHevcAacPack);
  const Json::Value state = Look();
  EXPECT_EQ(state["installed"]["package"], kHevcPack);
  EXPECT_EQ(state["installed"]["version"], "1.0");
  EXPECT_GT(state["installed"]["updated"].asInt64(), 0);
  ASSERT_EQ(state["installed"]["codecs"].size(), 1U);
  EXPECT_EQ(state["installed"]["codecs"][0], "hevc");
  ASSERT_EQ(state["requested"].size(), 1U);
  EXPECT_EQ(state["requested"][0], "aac");
  EXPECT_EQ(state["offer"]["package"], kHevcAacPack);
  EXPECT_EQ(state["offer"]["version"], "2.0");
}

TEST_F(StateReaderTest, LookFollowsTheProgressAndTheSteps) {
  const auto status = Status();
  status->SetAsDownloadInstalling(0L, 0L);
  EXPECT_TRUE(Look()["progress"].isNull());
  status->SetAsDownloadInstalling(512, 0);
  Json::Value progress = Look()["progress"];
  EXPECT_EQ(progress["text"], "512 B");
  EXPECT_TRUE(progress["total"].isNull());
  EXPECT_TRUE(progress["percent"].isNull());
  status->SetAsDownloadInstalling(3000000000, 4000000000);
  progress = Look()["progress"];
  EXPECT_EQ(progress["now"].asInt64(), 3000000000);
  EXPECT_EQ(progress["total"].asInt64(), 4000000000);
  EXPECT_EQ(progress["percent"], 75);
  EXPECT_EQ(progress["text"], "2.8 GiB of 3.7 GiB (75 %)");
  InstallPack();
  EXPECT_EQ(Look()["installed"]["version"], "1.0") << "nothing of the record has changed: a look at all";
  status->SetAsDownloadInstalling(updater::kStepInstall);
  const Json::Value state = Look();
  EXPECT_TRUE(state["under_way"].asBool());
  EXPECT_EQ(state["step"], "install");
  EXPECT_TRUE(state["progress"].isNull());
}

TEST_F(StateReaderTest, LookNamesEveryStepInTheOrderOfAnUpgrade) {
  std::string steps;
  const Json::Value state = Look();
  for (const Json::Value& step : state["steps"]) {
    EXPECT_NE(step["words"], "");
    steps += step["step"].asString() + " ";
  }
  EXPECT_EQ(steps, "pre_uninstall uninstall post_uninstall pre_install install post_install ");
}

TEST_F(StateReaderTest, LookTellsWhyAnUpdateIsNotPermitted) {
  Status()->SetAsDownloadFailed();
  EXPECT_EQ(Look()["why_no_update"],
            "the update is not permitted while the recorded status is download_failed (the last download failed)");
  Status()->SetAsDownloadInstallFailed();
  EXPECT_TRUE(Look()["why_no_update"].isNull());
}

TEST_F(StateReaderTest, LookTellsOfARecordThatCannotBeReadAndOfTheRest) {
  InstallPack();
  store::FileKeyValueStore::Create(path::kPackStatusFile)->Set(webapi::param::kStatus, "dancing");
  Json::Value state = Look();
  EXPECT_TRUE(state["status"].isNull());
  EXPECT_EQ(state["problems"][0], "the recorded status cannot be read; \"packctl recover\" mends it");
  EXPECT_EQ(state["why_no_update"], state["problems"][0]);
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
  EXPECT_TRUE(state["history"].isArray());
  EXPECT_TRUE(state["history"].empty());
  EXPECT_EQ(state["installed"]["version"], "1.0");
  ASSERT_EQ(state["problems"].size(), 1U);
  EXPECT_THAT(state["problems"][0].asString(), testing::HasSubstr("is no file"));
}

TEST_F(StateReaderTest, LookShowsTheNewestTwentyEntries) {
  for (int i = 0; i < 30; ++i) {
    AppendToHistory({.time = i, .command = "check", .result = "new_pack"});
  }
  const Json::Value history = Look()["history"];
  ASSERT_EQ(history.size(), 20U);
  EXPECT_EQ(history[0]["time"], 10);
  EXPECT_EQ(history[19]["time"], 29);
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
