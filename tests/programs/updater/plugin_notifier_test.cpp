#include "updater/plugin_notifier.h"

#include <gmock/gmock.h>
#include <json/json.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/constants.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_root.h"
#include "updater/json_text.h"

namespace orbamira::updater {
namespace {

namespace fs = std::filesystem;
using test::ErrorLine;
using test::InfoLine;
using test::LogCapture;
using test::LogLine;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kFile = "plugin_notifier.cpp";

// The programs are real ones here, written by each test; what they leave is an answer file or none.
class PluginNotifierProgramTest : public testing::Test {
 protected:
  PluginNotifierProgramTest() {
    fs::remove_all(path::kTempPluginAppIdPath);
    fs::create_directories(fs::path(path::kTempPluginAppIdPath).parent_path());
    LogCapture::Clear();
  }

  static void WriteProgram(const std::string& path, const std::string& body) {
    test::WriteFile(path, "#!/bin/sh\n" + body + "\n");
    fs::permissions(path, fs::perms::owner_all);
  }

  // The list program writes `json`.
  static void AnswerWith(const std::string& json) {
    test::WriteFile(test::Root() / "answer", json);
    WriteProgram(path::kGetAppIdPyPath, "cat '" + (test::Root() / "answer").string() + "' > \"$1\"");
  }

  static bool AnswerIsLeft() { return fs::exists(path::kTempPluginAppIdPath); }

  std::unique_ptr<IPluginNotifier> notifier_ = PluginNotifier::Create();
};

TEST_F(PluginNotifierProgramTest, NotifyPluginReachesTheProgramWithTheArgumentsAsTheyAre) {
  const std::string seen = (test::Root() / "arguments").string();
  WriteProgram(path::kNotifyPluginPyPath, R"(printf '<%s>' "$#" "$@" > ')" + seen + "'");
  EXPECT_TRUE(notifier_->NotifyPlugin(kEventInstall, kTimingPost, "a 'b' $c", "", kNotifyInstall));
  EXPECT_EQ(test::ReadFile(seen),
            "<10><--event><install><--package><a 'b' $c><--timing><post><--version><><--status><INSTALL>");
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PluginNotifierProgramTest, NotifyPluginFailsWithTheProgram) {
  WriteProgram(path::kNotifyPluginPyPath, "exit 3");
  EXPECT_FALSE(notifier_->NotifyPlugin(kEventUninstall, kTimingPre, "p", "v", kNotifyUpgrade));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(InfoLine(kFile, "Failed to notify plugin: " + std::string(path::kNotifyPluginPyPath) +
                                              " --event uninstall --package p --timing pre --version v --status "
                                              "UPGRADE")));
}

TEST_F(PluginNotifierProgramTest, NotifyPluginFailsWithoutTheProgram) {
  fs::remove(path::kNotifyPluginPyPath);
  EXPECT_FALSE(notifier_->NotifyPlugin(kEventUninstall, kTimingPre, "p", "v", kNotifyUpgrade));
  EXPECT_THAT(LogCapture::Lines(), testing::SizeIs(1));
}

TEST_F(PluginNotifierProgramTest, GetAppIdOfAnEmptyArrayIsEmptyWithoutALine) {
  AnswerWith("[]");
  EXPECT_THAT(notifier_->GetAppId(), IsEmpty());
  EXPECT_FALSE(AnswerIsLeft());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PluginNotifierProgramTest, GetAppIdKeepsOrderDuplicatesAndEmptyTexts) {
  AnswerWith(R"(["b", "a", "", "b"])");
  EXPECT_THAT(notifier_->GetAppId(), ElementsAre("b", "a", "", "b"));
  EXPECT_FALSE(AnswerIsLeft());
}

TEST_F(PluginNotifierProgramTest, GetAppIdTurnsPlainValuesIntoTexts) {
  AnswerWith(R"(["x", 5, true, null])");
  EXPECT_THAT(notifier_->GetAppId(), ElementsAre("x", "5", "true", ""));
  EXPECT_FALSE(AnswerIsLeft());
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PluginNotifierProgramTest, GetAppIdReadsAnArrayWithComments) {
  AnswerWith("// who is there\n[\"app.one\" /* the first */]\n");
  EXPECT_THAT(notifier_->GetAppId(), ElementsAre("app.one"));
}

TEST_F(PluginNotifierProgramTest, GetAppIdThrowsForNestedValuesAndLeavesTheAnswer) {
  for (const char* answer : {R"(["x", ["y"]])", R"([{}])"}) {
    AnswerWith(answer);
    EXPECT_THROW(notifier_->GetAppId(), Json::LogicError);
    EXPECT_TRUE(AnswerIsLeft());
  }
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
}

TEST_F(PluginNotifierProgramTest, GetAppIdOfSomethingElseThanAnArrayIsEmpty) {
  for (const char* answer : {R"({"app": "one"})", R"("app.one")", "5", "null"}) {
    LogCapture::Clear();
    AnswerWith(answer);
    EXPECT_THAT(notifier_->GetAppId(), IsEmpty());
    EXPECT_FALSE(AnswerIsLeft());
    EXPECT_THAT(LogCapture::Lines(), ElementsAre(InfoLine(kFile, "json content is not array")));
  }
}

TEST_F(PluginNotifierProgramTest, GetAppIdOfNoJsonIsEmpty) {
  for (const char* answer : {"", "[\"app.one\"", "[\"app.one\" oops]", "hello"}) {
    LogCapture::Clear();
    AnswerWith(answer);
    EXPECT_THAT(notifier_->GetAppId(), IsEmpty());
    EXPECT_FALSE(AnswerIsLeft());
    EXPECT_THAT(LogCapture::Lines(),
                ElementsAre(ErrorLine(kFile, "Failed to parse " + std::string(path::kTempPluginAppIdPath))));
  }
}

TEST_F(PluginNotifierProgramTest, GetAppIdReadsNoMoreThanTheLimit) {
  const std::string text = R"(["app.one"])";
  AnswerWith(text + std::string(kJsonTextLimit - text.size(), ' '));
  EXPECT_THAT(notifier_->GetAppId(), ElementsAre("app.one"));
  EXPECT_THAT(LogCapture::Lines(), IsEmpty());
  AnswerWith(text + std::string(kJsonTextLimit - text.size() + 1, ' '));
  EXPECT_THAT(notifier_->GetAppId(), IsEmpty());
  WriteProgram(path::kGetAppIdPyPath, "ln -s /dev/zero \"$1\"");
  EXPECT_THAT(notifier_->GetAppId(), IsEmpty());
  EXPECT_FALSE(AnswerIsLeft());
  const LogLine failed = ErrorLine(kFile, "Failed to parse " + std::string(path::kTempPluginAppIdPath));
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(failed, failed));
}

TEST_F(PluginNotifierProgramTest, GetAppIdOfAProgramThatWritesNothingIsEmpty) {
  WriteProgram(path::kGetAppIdPyPath, "exit 0");
  EXPECT_THAT(notifier_->GetAppId(), IsEmpty());
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(ErrorLine(kFile, "Failed to open " + std::string(path::kTempPluginAppIdPath)),
                          InfoLine(kFile, "Failed to remove " + std::string(path::kTempPluginAppIdPath))));
}

TEST_F(PluginNotifierProgramTest, GetAppIdOfAFailedProgramIsEmptyAndLeavesTheStaleAnswer) {
  test::WriteFile(path::kTempPluginAppIdPath, "[\"stale\"]");
  WriteProgram(path::kGetAppIdPyPath, "exit 1");
  EXPECT_THAT(notifier_->GetAppId(), IsEmpty());
  EXPECT_TRUE(AnswerIsLeft());
  EXPECT_THAT(LogCapture::Lines(), ElementsAre(InfoLine(kFile, "Failed to get app id from plugins")));
}

// A pipe whose writer removes it once the reader is there: it can be read, but is gone when the answer is removed.
TEST_F(PluginNotifierProgramTest, GetAppIdGivesTheListThoughTheAnswerCannotBeRemoved) {
  WriteProgram(path::kGetAppIdPyPath, R"(mkfifo "$1"; { exec 3> "$1"; rm "$1"; echo '["app.one"]' >&3; } &)");
  EXPECT_THAT(notifier_->GetAppId(), ElementsAre("app.one"));
  EXPECT_THAT(LogCapture::Lines(),
              ElementsAre(InfoLine(kFile, "Failed to remove " + std::string(path::kTempPluginAppIdPath))));
}

}  // namespace
}  // namespace orbamira::updater
