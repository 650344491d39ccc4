#include "updater/plugin_notifier.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/constants.h"
#include "tests/support/log_capture.h"
#include "tests/support/mocks.h"
#include "tests/support/test_root.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;
using test::ErrorLine;
using test::InfoLine;
using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::StrictMock;

using Command = std::vector<std::string>;

constexpr const char* kFile = "plugin_notifier.cpp";

class PluginNotifierTest : public testing::Test {
 protected:
  PluginNotifierTest() { LogCapture::Clear(); }

  std::shared_ptr<StrictMock<test::MockCore>> core_ = std::make_shared<StrictMock<test::MockCore>>();
  PluginNotifier notifier_{core_};
};

TEST_F(PluginNotifierTest, ConstructionRunsNothingAndSharesTheServices) {
  EXPECT_EQ(core_.use_count(), 2);
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PluginNotifierTest, NotifyPluginRunsTheProgramWithElevenArguments) {
  EXPECT_CALL(*core_, RunCommand(Command{path::kNotifyPluginPyPath, "--event", "uninstall", "--package", "pkgA",
                                         "--timing", "pre", "--version", "1.2", "--status", "UPGRADE"}))
      .WillOnce(Return(0));
  EXPECT_TRUE(notifier_.NotifyPlugin(kEventUninstall, kTimingPre, "pkgA", "1.2", kNotifyUpgrade));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PluginNotifierTest, NotifyPluginMapsEveryValueToItsText) {
  const std::vector<std::string> events = {"install", "uninstall"};
  const std::vector<std::string> timings = {"pre", "post"};
  const std::vector<std::string> statuses = {"INSTALL", "UNINSTALL", "UPGRADE"};
  for (std::size_t event = 0; event < events.size(); ++event) {
    for (std::size_t timing = 0; timing < timings.size(); ++timing) {
      for (std::size_t status = 0; status < statuses.size(); ++status) {
        EXPECT_CALL(*core_,
                    RunCommand(Command{path::kNotifyPluginPyPath, "--event", events[event], "--package", "p",
                                       "--timing", timings[timing], "--version", "v", "--status", statuses[status]}))
            .WillOnce(Return(0));
        EXPECT_TRUE(notifier_.NotifyPlugin(static_cast<NotifyPluginEvent>(event),
                                           static_cast<NotifyPluginTiming>(timing), "p", "v",
                                           static_cast<NotifyPluginStatus>(status)));
      }
    }
  }
}

TEST_F(PluginNotifierTest, NotifyPluginWithTextsKeepsTheOrderOfTheCommandLine) {
  EXPECT_CALL(*core_, RunCommand(Command{path::kNotifyPluginPyPath, "--event", "an event", "--package", "a package",
                                         "--timing", "a timing", "--version", "a version", "--status", "a status"}))
      .WillOnce(Return(0));
  EXPECT_TRUE(notifier_.NotifyPlugin("an event", "a package", "a timing", "a version", "a status"));
}

TEST_F(PluginNotifierTest, NotifyPluginHandsTextsOnAsTheyAre) {
  EXPECT_CALL(*core_, RunCommand(Command{path::kNotifyPluginPyPath, "--event", "install", "--package", "", "--timing",
                                         "post", "--version", "'\"$(x) %s\n", "--status", "INSTALL"}))
      .WillOnce(Return(0));
  EXPECT_TRUE(notifier_.NotifyPlugin(kEventInstall, kTimingPost, "", "'\"$(x) %s\n", kNotifyInstall));
}

TEST_F(PluginNotifierTest, NotifyPluginFailsOnceWithOneLineForAnyOtherStatus) {
  const std::string line = "Failed to notify plugin: " + std::string(path::kNotifyPluginPyPath) +
                           " --event install --package p --timing post --version v --status UNINSTALL";
  for (const int status : {1, 255, -1, -15}) {
    LogCapture::Clear();
    EXPECT_CALL(*core_, RunCommand).WillOnce(Return(status));
    EXPECT_FALSE(notifier_.NotifyPlugin(kEventInstall, kTimingPost, "p", "v", kNotifyUninstall));
    EXPECT_THAT(LogCapture::Lines(), ElementsAre(InfoLine(kFile, line)));
  }
}

TEST_F(PluginNotifierTest, GetAppIdRunsTheProgramWithTheAnswerFile) {
  fs::remove(path::kTempPluginAppIdPath);
  EXPECT_CALL(*core_, RunCommand(Command{path::kGetAppIdPyPath, path::kTempPluginAppIdPath}))
      .WillOnce([](const Command& command) {
        test::WriteFile(command[1], R"(["app.one", "app.two"])");
        return 0;
      });
  EXPECT_THAT(notifier_.GetAppId(), ElementsAre("app.one", "app.two"));
  EXPECT_FALSE(fs::exists(path::kTempPluginAppIdPath));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PluginNotifierTest, GetAppIdWithAFailedProgramLeavesAStaleAnswerAlone) {
  for (const int status : {1, -1, -9}) {
    LogCapture::Clear();
    test::WriteFile(path::kTempPluginAppIdPath, R"(["stale"])");
    EXPECT_CALL(*core_, RunCommand).WillOnce(Return(status));
    EXPECT_THAT(notifier_.GetAppId(), IsEmpty());
    EXPECT_EQ(test::ReadFile(path::kTempPluginAppIdPath), R"(["stale"])");
    EXPECT_THAT(LogCapture::Lines(), ElementsAre(InfoLine(kFile, "Failed to get app id from plugins")));
  }
}

TEST_F(PluginNotifierTest, GetAppIdIsEmptyWhenTheAnswerIsAFolder) {
  fs::remove(path::kTempPluginAppIdPath);
  fs::create_directories(path::kTempPluginAppIdPath);
  EXPECT_CALL(*core_, RunCommand).WillOnce(Return(0));
  EXPECT_THAT(notifier_.GetAppId(), IsEmpty());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine(kFile, "Failed to open " + std::string(path::kTempPluginAppIdPath))));
}

TEST_F(PluginNotifierTest, GetAppIdIsEmptyWhenTheAnswerCannotBeRemovedEither) {
  fs::remove(path::kTempPluginAppIdPath);
  EXPECT_CALL(*core_, RunCommand).WillOnce(Return(0));
  EXPECT_THAT(notifier_.GetAppId(), IsEmpty());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine(kFile, "Failed to open " + std::string(path::kTempPluginAppIdPath)),
                          InfoLine(kFile, "Failed to remove " + std::string(path::kTempPluginAppIdPath))));
}

}  // namespace
}  // namespace orbamira::updater
