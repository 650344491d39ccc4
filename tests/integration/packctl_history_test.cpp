// What packctl remembers of its own runs.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <json/reader.h>
#include <pty.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <sstream>

#include "platform/constants.h"
#include "tests/support/appliance.h"
#include "tests/support/error_text.h"
#include "tests/support/test_root.h"
#include "updater/pack_status_helper.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

using test::Appliance;
using test::ProgramResult;
using test::ReadFile;
using test::WriteFile;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class PackctlHistoryTest : public testing::Test {
 protected:
  static ProgramResult Run(const std::vector<std::string>& arguments) { return Appliance::Packctl(arguments); }

  static Json::Value Answer(const std::vector<std::string>& arguments = {"history", "--json"}) {
    const ProgramResult result = Run(arguments);
    EXPECT_EQ(result.status, 0) << result.errors;
    Json::Value answer;
    std::istringstream(result.output) >> answer;
    return answer;
  }

  static std::vector<std::string> Commands() {
    std::vector<std::string> commands;
    const Json::Value answer = Answer();
    for (const Json::Value& entry : answer["entries"]) {
      commands.push_back(entry["command"].asString());
    }
    return commands;
  }

  static Json::Value Last() {
    const Json::Value entries = Answer()["entries"];
    return entries.empty() ? Json::Value() : entries[0];
  }

  // What "packctl history" shows on a terminal, with these settings of the environment.
  static std::string OnTerminal(const std::vector<std::string>& environment,
                                const std::vector<std::string>& options = {}) {
    std::vector<std::string> command = {"/usr/bin/env", "-u", "PAGER", "-u", "LESS", "TERM=xterm"};
    command.insert(command.end(), environment.begin(), environment.end());
    std::vector<std::string> arguments = {"history"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const std::vector<std::string> packctl = Appliance::PackctlCommand(arguments);
    command.insert(command.end(), packctl.begin(), packctl.end());
    int master = -1;
    int slave = -1;
    EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    fcntl(slave, F_SETFD, FD_CLOEXEC);
    test::RunningProgram program(command, slave);
    close(slave);
    std::string screen;
    std::array<char, 4096> buffer{};
    for (ssize_t length = 0; (length = read(master, buffer.data(), buffer.size())) > 0;) {
      screen.append(buffer.data(), static_cast<std::size_t>(length));
    }
    close(master);
    EXPECT_EQ(program.Wait().status, 0);
    return screen;
  }

  // Makes a pager of this name that says with what it was started, and then shows its input.
  std::string MakePager(const std::string& name) {
    const std::string file = pagers_.File(name);
    WriteFile(file, "#!/bin/sh\necho \"pager LESS=$LESS LESSSECURE=$LESSSECURE $*\"\ncat\n");
    fs::permissions(file, fs::perms::owner_all);
    return file;
  }

  static Json::Value Pack(const char* package, const char* version) {
    Json::Value pack;
    pack["package"] = package != nullptr ? Json::Value(package) : Json::Value();
    pack["version"] = version;
    return pack;
  }

  Appliance appliance_;
  test::TempDir pagers_;
};

TEST_F(PackctlHistoryTest, IsEmptyAtFirst) {
  EXPECT_EQ(Answer()["entries"].size(), 0U);
  EXPECT_EQ(Run({"history"}).output, "Nothing was done yet.\n");
}

TEST_F(PackctlHistoryTest, TellsOfEveryCommandThatChangedSomething) {
  appliance_.Publish("1.0", "one");
  const std::time_t begin = std::time(nullptr);
  ASSERT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Last()["to"], Pack(nullptr, "1.0"));
  ASSERT_EQ(Run({"download"}).status, 0);
  EXPECT_EQ(Last()["to"], Pack(kHevcPack, "1.0"));
  ASSERT_EQ(Run({"install"}).status, 0);
  EXPECT_EQ(Last()["to"], Pack(kHevcPack, "1.0"));
  EXPECT_TRUE(Last()["from"].isNull());

  appliance_.Publish("2.0", "two");
  ASSERT_EQ(Run({"update"}).status, 0);
  const Json::Value update = Last();
  EXPECT_EQ(update["command"], "update");
  EXPECT_EQ(update["from"], Pack(kHevcPack, "1.0"));
  EXPECT_EQ(update["to"], Pack(kHevcPack, "2.0"));
  EXPECT_EQ(update["result"], "done");
  EXPECT_EQ(update["status"], "up_to_date");
  EXPECT_EQ(update["exit"], 0);
  EXPECT_EQ(update["errors"].size(), 0U);
  EXPECT_TRUE(update["error"].isNull());
  EXPECT_GE(update["time"].asInt64(), begin);
  EXPECT_LE(update["time"].asInt64(), std::time(nullptr));
  EXPECT_GT(update["duration_ms"].asInt64(), 0);

  ASSERT_EQ(Run({"remove"}).status, 0);
  EXPECT_TRUE(Last()["to"].isNull());
  updater::PackStatusHelper::Create()->SetAsDownloading();
  ASSERT_EQ(Run({"recover"}).status, 0);
  EXPECT_EQ(Last()["status"], "download_failed");
  EXPECT_THAT(Commands(), ElementsAre("recover", "remove", "update", "install", "download", "check"));
}

TEST_F(PackctlHistoryTest, DoesNotTellOfWhatChangedNothing) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  EXPECT_EQ(Run({"check"}).status, 2);
  EXPECT_EQ(Run({"install"}).status, 3);
  EXPECT_EQ(Run({"recover"}).status, 0);
  for (const char* query : {"status", "info", "codecs", "plugins", "history"}) {
    EXPECT_EQ(Run({query}).status, 0) << query;
  }
  ASSERT_EQ(Run({"remove"}).status, 0);
  EXPECT_EQ(Run({"remove"}).status, 2);
  EXPECT_THAT(Commands(), ElementsAre("remove", "update"));
}

TEST_F(PackctlHistoryTest, TellsWhyACommandFailed) {
  EXPECT_EQ(Run({"check"}).status, 1);
  const Json::Value check = Last();
  EXPECT_EQ(check["result"], "failed");
  EXPECT_EQ(check["exit"], 1);
  EXPECT_EQ(check["status"], "lost");
  ASSERT_EQ(check["errors"].size(), 3U);
  EXPECT_EQ(check["errors"][0], "Failed to send request with status: 404");
  EXPECT_EQ(check["errors"][2], "the check failed; the recorded status is lost");
  EXPECT_EQ(check["error"]["code"], "server_refused");
  const std::string line = "  check     Failed: " + check["error"]["message"].asString() +
                           " (server_refused). No codec pack is installed.\n";
  EXPECT_THAT(Run({"history"}).output, EndsWith(line));
  EXPECT_THAT(Run({"history", "--verbose"}).output,
              EndsWith(line + "    from no pack to no pack\n    Failed to send request with status: 404\n"
                              "    FetchDownloadInfo failed\n    the check failed; the recorded status is lost\n"));
}

TEST_F(PackctlHistoryTest, AFailedUpdateTellsThatTheOldPackIsBack) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  appliance_.Publish("2.0", "two");
  fs::remove(path::kTarPath);
  ASSERT_EQ(Run({"update"}).status, 1);
  const Json::Value update = Last();
  EXPECT_EQ(update["from"], Pack(kHevcPack, "1.0"));
  EXPECT_EQ(update["to"], Pack(kHevcPack, "1.0"));
  EXPECT_EQ(update["status"], "download_install_failed");
  EXPECT_THAT(update["errors"].toStyledString(), HasSubstr("Recovery: restored the previous pack"));
}

TEST_F(PackctlHistoryTest, LimitGivesTheNewest) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Run({"check"}).status, 1);
  }
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"check"}).status, 0);
  const Json::Value two = Answer({"history", "--json", "--limit", "2"});
  ASSERT_EQ(two["entries"].size(), 2U);
  EXPECT_EQ(two["entries"][0]["exit"], 0);
  EXPECT_EQ(two["entries"][1]["exit"], 1);
  EXPECT_EQ(two["older"], 2);
  EXPECT_THAT(Run({"history", "--limit", "3"}).output, EndsWith("\n1 older. Run: packctl history --limit 4\n"));
  EXPECT_EQ(Answer({"history", "--json", "--limit", "0"})["entries"].size(), 0U);
  EXPECT_EQ(Answer({"history", "--json", "--limit", "99"})["entries"].size(), 4U);
  EXPECT_EQ(Answer({"history", "--json", "--limit", "99"})["older"], 0);
  for (const char* wrong : {"-1", "many", ""}) {
    EXPECT_EQ(Run({"history", "--limit", wrong}).status, 64) << wrong;
  }
}

TEST_F(PackctlHistoryTest, WithoutALimitShowsTheNewest50) {
  EXPECT_EQ(Run({"check"}).status, 1);
  std::string lines = ReadFile(path::kHistoryFile);
  for (int i = 0; i < 6; ++i) {
    lines += lines;
  }
  WriteFile(path::kHistoryFile, lines);
  EXPECT_EQ(Answer()["entries"].size(), 50U);
  EXPECT_EQ(Answer()["older"], 14);
}

TEST_F(PackctlHistoryTest, IsShownInThePagerOnATerminal) {
  EXPECT_EQ(Run({"check"}).status, 1);
  const std::string pager = MakePager("my-pager");
  EXPECT_THAT(OnTerminal({"PAGER=" + pager + " --colour"}),
              AllOf(StartsWith("pager LESS=FRX LESSSECURE=1 --colour\r\n"), HasSubstr("check     Failed: ")));
  EXPECT_THAT(OnTerminal({"PAGER=" + pager, "LESS=S", "LESSSECURE=0"}), StartsWith("pager LESS=S LESSSECURE=1 \r\n"));
  MakePager("less");
  EXPECT_THAT(OnTerminal({"PATH=" + pagers_.path().string() + ":/bin"}),
              AllOf(StartsWith("pager LESS=FRX LESSSECURE=1 \r\n"), HasSubstr("check     Failed: ")));
}

TEST_F(PackctlHistoryTest, KeysForThePagerDoNotEndPackctl) {
  EXPECT_EQ(Run({"check"}).status, 1);
  EXPECT_THAT(OnTerminal({"PAGER=kill -INT $PPID; kill -QUIT $PPID; cat"}), HasSubstr("check     Failed: "));
}

TEST_F(PackctlHistoryTest, IsPrintedWhereNoPagerIsWantedOrCanRun) {
  EXPECT_EQ(Run({"check"}).status, 1);
  const std::string pager = "PAGER=" + MakePager("my-pager");
  const auto is_printed =
      AllOf(StartsWith("20"), HasSubstr("check     Failed: "), testing::Not(HasSubstr("pager LESS=")));
  EXPECT_THAT(OnTerminal({pager}, {"--no-pager"}), is_printed);
  EXPECT_THAT(OnTerminal({"PAGER="}), is_printed);
  EXPECT_THAT(OnTerminal({pager, "TERM=dumb"}), is_printed);
  EXPECT_THAT(OnTerminal({"PAGER=none-such"}), is_printed);
  EXPECT_THAT(OnTerminal({"PATH=/none"}), is_printed);
  EXPECT_THAT(OnTerminal({pager}, {"--json"}), StartsWith("{"));
}

TEST_F(PackctlHistoryTest, TextFromOutsideCannotSteerTheTerminal) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  WriteFile(path::kPackInfoPath, "package=p\033\nversion=1\033[2J\n");
  ASSERT_EQ(Run({"remove"}).status, 0);
  EXPECT_THAT(Run({"history"}).output,
              AllOf(HasSubstr("  remove    Removed 1\\033[2J.\n"), testing::Not(HasSubstr("\033"))));
}

TEST_F(PackctlHistoryTest, ADamagedHistoryFailsNoCommand) {
  appliance_.Publish("1.0", "one");
  WriteFile(path::kHistoryFile, std::string("\0\xFF{\"time\":", 10));
  ASSERT_EQ(Run({"update"}).status, 0);
  EXPECT_THAT(Commands(), ElementsAre("update"));
  EXPECT_EQ(Answer()["damaged"], 1);
  EXPECT_EQ(Run({"history"}).errors, "packctl: unreadable lines in the history, passed over: 1\n");
}

TEST_F(PackctlHistoryTest, AHistoryThatCannotBeKeptIsToldAndFailsNoCommand) {
  appliance_.Publish("1.0", "one");
  fs::create_directories(path::kHistoryFile);
  const ProgramResult update = Run({"update"});
  EXPECT_EQ(update.status, 0);
  EXPECT_EQ(update.errors, std::string("packctl: cannot keep the history: ") + path::kHistoryFile + ": " +
                               test::ErrorText(EISDIR) + "\n");
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  EXPECT_EQ(Run({"recover"}).status, 0);
  EXPECT_EQ(Run({"history"}).status, 1);
}

}  // namespace
}  // namespace orbamira
