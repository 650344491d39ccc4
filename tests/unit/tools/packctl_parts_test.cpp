#include <gmock/gmock.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "platform/constants.h"
#include "tests/support/test_root.h"
#include "tools/packctl/host/asked_status_helper.h"
#include "tools/packctl/host/checking_pack_handler.h"
#include "tools/packctl/host/direct_core.h"
#include "tools/packctl/host/watched_work.h"
#include "tools/packctl/view/status_words.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

using testing::Not;
using testing::StrEq;

TEST(RunWatchedTest, ReturnsWhatTheWorkReturned) {
  EXPECT_TRUE(RunWatched([] { return true; }, [] {}));
  EXPECT_FALSE(RunWatched([] { return false; }, [] {}));
}

TEST(RunWatchedTest, LooksOnTheCallersThreadWhileTheWorkRunsOnAnother) {
  std::mutex mutex;
  std::condition_variable looked;
  int looks = 0;
  std::thread::id worker;
  const bool seen = RunWatched(
      [&] {
        worker = std::this_thread::get_id();
        std::unique_lock lock(mutex);
        return looked.wait_for(lock, std::chrono::seconds(30), [&] { return looks >= 2; });
      },
      [&, caller = std::this_thread::get_id()] {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        const std::lock_guard lock(mutex);
        ++looks;
        looked.notify_one();
      });
  EXPECT_TRUE(seen);
  EXPECT_NE(worker, std::this_thread::get_id());
}

TEST(RunWatchedTest, EndsAsSoonAsTheWorkDoes) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 50; ++i) {
    RunWatched([] { return true; }, [] {});
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << "50 times the interval is 10 s";
}

TEST(RunWatchedTest, ThrowsWhatTheWorkThrew) {
  EXPECT_THROW(RunWatched([]() -> bool { throw std::runtime_error("work"); }, [] {}), std::runtime_error);
}

int TellOfAStep() { return DirectCore().RunCommand({path::kNotifyPluginPyPath, "--event", "install"}); }

TEST(DirectCoreTest, RemovesFoldersWithoutAProgram) {
  const fs::path folder = test::Root() / "removals/folder";
  test::WriteFile(folder / "inner/file", "text");
  EXPECT_EQ(DirectCore().RunCommand({path::kRmPath, "-rf", folder}), 0);
  EXPECT_FALSE(fs::exists(folder));
  EXPECT_TRUE(fs::is_empty(folder.parent_path())) << "what was moved aside is left";
}

TEST(DirectCoreTest, RemovingNothingSucceeds) {
  EXPECT_EQ(DirectCore().RunCommand({path::kRmPath, "-rf", test::Root() / "missing"}), 0);
}

TEST(DirectCoreTest, ARemovalThatFailsIsToldInTheProgramsWords) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(DirectCore().RunCommand({path::kRmPath, "-rf", (test::Root() / "..").string()}), 1);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::MatchesRegex("orba-remove: .+\n"));
}

// No program stands at the notifier's path here, nor could one be started.
TEST(DirectCoreTest, TellsNobodyWhereNoPluginIs) {
  fs::remove_all(path::kPluginFolder);
  EXPECT_EQ(TellOfAStep(), 0);
  fs::create_directories(path::kPluginFolder);
  EXPECT_EQ(TellOfAStep(), 0);
}

TEST(DirectCoreTest, StartsTheNotifierWhereAPluginMayBe) {
  test::WriteFile(fs::path(path::kPluginFolder) / "plugin", "");
  EXPECT_NE(TellOfAStep(), 0);
  fs::remove_all(path::kPluginFolder);
  test::WriteFile(path::kPluginFolder, "no folder");
  EXPECT_NE(TellOfAStep(), 0) << "orba-plugins tells what is wrong with it";
  fs::remove_all(path::kPluginFolder);
}

TEST(DirectCoreTest, StartsEveryOtherProgram) {
  EXPECT_NE(DirectCore().RunCommand({path::kGetAppIdPyPath, "answer"}), 0);
  EXPECT_NE(DirectCore().RunCommand({}), 0);
}

TEST(StatusWordsTest, StatusMeaningDiffersForEachStatus) {
  std::set<std::string> meanings;
  for (int status = updater::kStatusLost; status <= updater::kStatusUpToDate; ++status) {
    meanings.insert(StatusMeaning(static_cast<updater::PackStatus>(status)));
  }
  EXPECT_EQ(meanings.size(), updater::kPackStatusTexts.size());
}

TEST(StatusWordsTest, PermittedCommandsFollowTheLibrarysRules) {
  EXPECT_EQ(PermittedCommands(updater::kStatusNeedDownload), "check, download, update");
  EXPECT_EQ(PermittedCommands(updater::kStatusDownloading), "check");
  EXPECT_EQ(PermittedCommands(updater::kStatusDownloadFailed), "check, download");
  EXPECT_EQ(PermittedCommands(updater::kStatusNeedInstall), "check, install, update");
  EXPECT_EQ(PermittedCommands(updater::kStatusUpToDate), "check, update");
}

TEST(StatusWordsTest, StepWordsDifferForEachStep) {
  std::set<std::string> words;
  for (const char* step : updater::kInstallStepTexts) {
    words.insert(StepWords(step));
  }
  EXPECT_EQ(words.size(), updater::kInstallStepTexts.size());
  EXPECT_THAT(StepWords(""), StrEq(""));
}

class AskedStatusHelperTest : public testing::Test {
 protected:
  AskedStatusHelper helper_{nullptr};
};

TEST_F(AskedStatusHelperTest, RemembersNothingBeforeItIsAsked) {
  EXPECT_FALSE(helper_.permitted());
  EXPECT_FALSE(helper_.refused_status());
}

TEST_F(AskedStatusHelperTest, EveryPermissionIsTheLibrarysAndRemembered) {
  const updater::PackStatusHelper rules(nullptr);
  for (const auto can_do : {&updater::IPackStatusHelper::CanDoDownload, &updater::IPackStatusHelper::CanDoInstall,
                            &updater::IPackStatusHelper::CanDoDownloadInstall}) {
    for (int number = updater::kStatusLost; number <= updater::kStatusUpToDate; ++number) {
      const auto status = static_cast<updater::PackStatus>(number);
      const bool expected = (rules.*can_do)(status);
      EXPECT_EQ((helper_.*can_do)(status), expected) << number;
      EXPECT_EQ(helper_.permitted(), expected) << number;
      EXPECT_EQ(helper_.refused_status(), expected ? std::nullopt : std::optional(status)) << number;
    }
  }
}

class CheckingPackHandlerTest : public testing::Test {
 protected:
  static Json::Value Offer(const std::string& version) {
    Json::Value info;
    info[param::kVersion] = version;
    return info;
  }

  CheckingPackHandler handler_{nullptr, nullptr, std::make_shared<wrapper::OrbaCoreWrapper>(), nullptr};
};

TEST_F(CheckingPackHandlerTest, CheckNewVersionRemembersAnOfferItDeclined) {
  test::WriteFile(path::kPackInfoPath, "version=2.0\n");
  EXPECT_FALSE(handler_.CheckNewVersion(Offer("1.9")));
  EXPECT_EQ(handler_.declined_version(), "1.9");
}

TEST_F(CheckingPackHandlerTest, CheckNewVersionRemembersNothingOfANewerOffer) {
  test::WriteFile(path::kPackInfoPath, "version=2.0\n");
  EXPECT_TRUE(handler_.CheckNewVersion(Offer("2.1")));
  EXPECT_FALSE(handler_.declined_version());
}

TEST_F(CheckingPackHandlerTest, CheckNewVersionTakesAnOfferWithoutVersionForNone) {
  test::WriteFile(path::kPackInfoPath, "version=2.0\n");
  EXPECT_FALSE(handler_.CheckNewVersion(Json::Value(Json::objectValue)));
  EXPECT_FALSE(handler_.declined_version());
}

}  // namespace
}  // namespace orbamira::packctl
