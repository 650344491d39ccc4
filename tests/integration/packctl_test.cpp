// The built packctl with everything it runs, on an appliance of the test's own.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <json/reader.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/paths.h"
#include "tests/support/appliance.h"
#include "tests/support/await.h"
#include "tests/support/error_text.h"
#include "tests/support/process.h"
#include "tests/support/restrictions.h"
#include "tests/support/test_root.h"
#include "updater/pack_status_helper.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

using test::Appliance;
using test::Await;
using test::HttpRequest;
using test::HttpResponse;
using test::ProgramResult;
using test::RunningProgram;
using test::WriteFile;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

// A payload that no compression makes small, so that a download can be stopped inside.
std::string BigPayload() { return test::PatternOf(4 << 20); }

class PackctlTest : public testing::Test {
 protected:
  static ProgramResult Run(const std::vector<std::string>& arguments) { return Appliance::Packctl(arguments); }

  /// Runs with --json; the answer must be one JSON object on one line.
  static Json::Value RunJson(const std::vector<std::string>& arguments, int expected_status) {
    std::vector<std::string> all = arguments;
    all.emplace_back("--json");
    const ProgramResult result = Run(all);
    EXPECT_EQ(result.status, expected_status) << result.errors;
    return Parse(result.output);
  }

  static Json::Value Parse(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << text << errors;
    EXPECT_EQ(text.find('\n'), text.size() - 1);
    return value;
  }

  static std::vector<std::string> Members(const Json::Value& value) { return value.getMemberNames(); }

  static std::unique_ptr<updater::IPackStatusHelper> Status() { return updater::PackStatusHelper::Create(); }

  /// Lets downloads of packages stop after the first half.
  void StallPackages() {
    appliance_.SetFault([](const HttpRequest& request, HttpResponse& response) {
      if (request.target.ends_with(".opk")) {
        response.stall_at = response.body.size() / 2;
      }
    });
  }

  Appliance appliance_;
};

/// From now on packages must be signed, which those of the appliance's server are not.
void DemandSignatures() {
  const test::TempDir folder;
  const fs::path keyring = path::kKeyring;
  fs::create_directories(keyring.parent_path());
  ASSERT_TRUE(test::RunProgram({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                                "-nodes", "-subj", "/CN=authority", "-keyout", folder.File("key"), "-out", keyring})
                  .Exited(0));
  fs::permissions(keyring, fs::perms(0644));
}

// What opens the store may set a file aside, and must not take one away that another process is saving.
TEST_F(PackctlTest, LeavesTheStoreAloneWhileAnotherProcessHasItsLock) {
  appliance_.Publish("1.0", "codec");
  WriteFile(path::kPackStatusFile, "{");
  auto lock = std::make_unique<store::FileLock>(path::kPackStatusLock);
  RunningProgram check(Appliance::PackctlCommand({"check"}));
  const std::string waiting = "-> FLOCK  ADVISORY  WRITE " + std::to_string(check.pid()) + " ";
  Await([&] { return test::ReadFile("/proc/locks").find(waiting) != std::string::npos; });
  EXPECT_EQ(test::ReadFile(path::kPackStatusFile), "{");
  lock.reset();
  EXPECT_EQ(check.Wait().status, 0);
  EXPECT_EQ(test::ReadFile(std::string(path::kPackStatusFile) + ".broken"), "{");
}

TEST_F(PackctlTest, HelpTeachesEveryCommand) {
  const ProgramResult help = Run({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* command :
       {"check", "download", "install", "update", "remove", "status", "info", "codecs", "plugins", "recover"}) {
    EXPECT_THAT(help.output, HasSubstr(command));
    const ProgramResult own = Run({command, "--help"});
    EXPECT_EQ(own.status, 0);
    EXPECT_THAT(own.output, AllOf(HasSubstr(std::string("packctl ") + command), HasSubstr("--json")));
  }
}

TEST_F(PackctlTest, HelpOfACommandIsAlsoAskedForByHelp) {
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{}, {"history"}, {"help"}, {"account"}, {"account", "sign-in"}}) {
    std::vector<std::string> by_word = {"help"};
    by_word.insert(by_word.end(), words.begin(), words.end());
    std::vector<std::string> by_option = words;
    by_option.emplace_back("--help");
    const ProgramResult help = Run(by_word);
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output, Not(IsEmpty()));
    EXPECT_EQ(help.output, Run(by_option).output) << testing::PrintToString(words);
  }
}

TEST_F(PackctlTest, VersionNamesTheBuildAndTheLibraries) {
  const ProgramResult version = Run({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.output, testing::MatchesRegex("packctl [0-9.]+\nBuild:     [^\n]+, [^\n]+, [^\n]+\nLibraries: "
                                                    "libcurl [0-9][^\n]*, OpenSSL [0-9][^\n]*, cpr [0-9][^\n]*, "
                                                    "jsoncpp [0-9][^\n]*, CLI11 [0-9][^\n]*\n"));
  EXPECT_EQ(Run({"-V"}).output, version.output);
}

TEST_F(PackctlTest, WrongUsageEndsWith64AndSaysWhy) {
  for (const std::vector<std::string>& wrong : std::vector<std::vector<std::string>>{
           {}, {"dance"}, {"status", "--loud"}, {"status", "more"}, {"check", "update"}}) {
    const ProgramResult result = Run(wrong);
    EXPECT_EQ(result.status, 64) << testing::PrintToString(wrong);
    EXPECT_THAT(result.errors, Not(IsEmpty()));
    EXPECT_THAT(result.output, IsEmpty());
  }
}

TEST_F(PackctlTest, WrongUsageIsOneLineWithTheNearestCommandAndTheWayToHelp) {
  const auto error = [](const std::vector<std::string>& arguments) { return Run(arguments).errors; };
  EXPECT_EQ(error({"updat"}),
            "packctl: there is no command \"updat\". Did you mean \"update\"? Run \"packctl --help\" for help.\n");
  EXPECT_EQ(error({"account", "sing-in"}),
            "packctl: there is no command \"sing-in\". Did you mean \"sign-in\"? Run \"packctl account --help\" for "
            "help.\n");
  EXPECT_EQ(error({"xylophone"}), "packctl: there is no command \"xylophone\". Run \"packctl --help\" for help.\n");
  EXPECT_EQ(error({"status", "--loud"}),
            "packctl: there is no option \"--loud\". Run \"packctl status --help\" for help.\n");
  EXPECT_EQ(error({"status", "--wacth"}),
            "packctl: there is no option \"--wacth\". Did you mean \"--watch\"? Run \"packctl status --help\" for "
            "help.\n");
  EXPECT_EQ(error({"status", "now"}), "packctl: \"now\" was not expected. Run \"packctl status --help\" for help.\n");
  EXPECT_EQ(error({"help", "account", "sing-in"}),
            "packctl: there is no command \"sing-in\". Did you mean \"sign-in\"? Run \"packctl account --help\" for "
            "help.\n");
  EXPECT_EQ(error({}), "packctl: name a command. Run \"packctl --help\" for help.\n");
  EXPECT_EQ(error({"account"}), "packctl: name a command. Run \"packctl account --help\" for help.\n");
  EXPECT_EQ(error({"xylo\nphone"}),
            "packctl: there is no command \"xylo\\012phone\". Run \"packctl --help\" for help.\n");
}

TEST_F(PackctlTest, AFirstUpdateBringsThePack) {
  appliance_.Publish("1.0", "one");
  const Json::Value check = RunJson({"check"}, 0);
  EXPECT_THAT(Members(check),
              testing::ElementsAre("command", "installed_version", "result", "staged", "status", "version"));
  EXPECT_EQ(check["command"], "check");
  EXPECT_EQ(check["result"], "new_pack");
  EXPECT_EQ(check["status"], "need_download");
  EXPECT_EQ(check["version"], "1.0");
  EXPECT_TRUE(check["installed_version"].isNull());

  const Json::Value update = RunJson({"update"}, 0);
  EXPECT_THAT(Members(update), testing::ElementsAre("command", "result", "status"));
  EXPECT_EQ(update["command"], "update");
  EXPECT_EQ(update["result"], "done");
  EXPECT_EQ(update["status"], "up_to_date");
  EXPECT_EQ(Appliance::InstalledPayload(), "one");

  struct stat about {};
  ASSERT_EQ(stat(path::kPackInfoPath, &about), 0);
  const Json::Value info = RunJson({"info"}, 0);
  EXPECT_EQ(info["installed"], true);
  EXPECT_EQ(info["package"], kHevcPack);
  EXPECT_EQ(info["version"], "1.0");
  EXPECT_EQ(info["updated"].asInt64(), about.st_mtime);

  const Json::Value codecs = RunJson({"codecs"}, 0);
  EXPECT_EQ(codecs["installed"], Parse("[\"hevc\"]\n"));
  EXPECT_EQ(codecs["requested"], Parse("[]\n"));
}

TEST_F(PackctlTest, CheckEndsWith2WhenNothingIsNew) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  const Json::Value check = RunJson({"check"}, 2);
  EXPECT_EQ(check["command"], "check");
  EXPECT_EQ(check["result"], "nothing_new");
  EXPECT_EQ(check["status"], "up_to_date");
  EXPECT_EQ(check["version"], "1.0");
  EXPECT_EQ(check["installed_version"], "1.0");
  EXPECT_EQ(Run({"check"}).output, "Nothing new: 1.0 is installed, the server offers 1.0.\n");
}

TEST_F(PackctlTest, CheckWithoutAnAddressSaysThatThereIsNobodyToAsk) {
  WriteFile(path::kPkgSetting, "# none\n");
  const Json::Value check = RunJson({"check"}, 2);
  EXPECT_EQ(check["result"], "no_address");
  EXPECT_EQ(check["status"], "lost");
  EXPECT_TRUE(check["version"].isNull());
  const ProgramResult told = Run({"check"});
  EXPECT_EQ(told.output,
            std::string("No update server is set. Set pack_update_server in ") + path::kPkgSetting + ".\n");
  EXPECT_EQ(told.errors, "");
  EXPECT_EQ(RunJson({"history"}, 0)["entries"].size(), 0U);
}

TEST_F(PackctlTest, CheckFailsWhereTheSettingsAreNotBelieved) {
  fs::permissions(path::kPkgSetting, fs::perms(0666));
  EXPECT_EQ(RunJson({"check"}, 1)["result"], "failed");
  EXPECT_EQ(Run({"check"}).errors,
            std::string("packctl: Check failed: Ignored ") + path::kPkgSetting +
                ": everyone may write it. No codec pack is installed. Run: sudo packctl doctor\n");
}

TEST_F(PackctlTest, CheckNotesWhenTheServerAnswered) {
  const fs::path answered = fs::path(kDownloadFolder).parent_path() / "checked";
  fs::create_directories(answered.parent_path());
  ASSERT_EQ(Run({"check"}).status, 1);
  EXPECT_FALSE(fs::exists(answered));
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"check"}).status, 0);
  ASSERT_TRUE(fs::exists(answered));
  ASSERT_EQ(Run({"update"}).status, 0);
  const auto long_ago = fs::file_time_type::clock::now() - std::chrono::hours(30);
  fs::last_write_time(answered, long_ago);
  ASSERT_EQ(Run({"check"}).status, 2);
  EXPECT_GT(fs::last_write_time(answered), long_ago + std::chrono::hours(29));
}

TEST_F(PackctlTest, TextFromOutsideCannotSteerTheTerminal) {
  const std::string escape = "9\033[2J";
  const std::string shown = "9\\033[2J";
  Status()->SetAsNeedInstall(escape, "name\033");
  EXPECT_THAT(Run({"status"}).output, HasSubstr("Available:  name\\033 " + shown + "\n"));
  WriteFile(path::kPackInfoPath, "package=p\033\nversion=" + escape + "\n");
  EXPECT_THAT(Run({"info"}).output, AllOf(HasSubstr("Package: p\\033\n"), HasSubstr("Version: " + shown + "\n")));
  appliance_.Publish("8", "eight");
  EXPECT_EQ(Run({"check"}).output, "Nothing new: " + shown + " is installed, the server offers 8.\n");
  fs::create_directory(fs::path(kTargetFolder) / (std::string(".") + kPackFolderName + ".partial.\033"));
  EXPECT_THAT(Run({"recover"}).output, AllOf(HasSubstr(".partial.\\033.\n"), Not(HasSubstr("\033"))));
}

TEST_F(PackctlTest, CheckSaysThatAacIsWhatIsNew) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  WriteFile(path::kCodecRequirementsPath, R"({"aac": ["player"]})");
  appliance_.Publish("1.0", "both", kHevcAacPack);
  EXPECT_EQ(Run({"check"}).output,
            "1.0 with AAC, which an application needs, is available (1.0 is installed). Run: sudo packctl update\n");
  EXPECT_THAT(Run({"update"}).output, HasSubstr("Installed 1.0 with HEVC and AAC (was HEVC) in "));
  EXPECT_THAT(Run({"history"}).output, HasSubstr("Installed 1.0 with HEVC and AAC (was HEVC) in "));
}

TEST_F(PackctlTest, StatusAnswersHowItIsAndWhatToDo) {
  const auto status = [](const std::string& text) { return testing::MatchesRegex(text); };
  const std::string time = "[0-9-]+ [0-9:]+ [^ ]+";
  EXPECT_THAT(Run({"status"}).output, status("No codec pack is installed\\.\n"
                                             "Installed:  no codec pack\n"
                                             "Available:  not known\n"
                                             "Last check: never\n"
                                             "To do:      Run: sudo packctl update\n"));
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"check"}).status, 0);
  EXPECT_THAT(Run({"status"}).output, status("1\\.0 is available\\.\n"
                                             "Installed:  no codec pack\n"
                                             "Available:  1\\.0\n"
                                             "Last check: " +
                                             time +
                                             ", found 1\\.0\n"
                                             "To do:      Run: sudo packctl update\n"));
  ASSERT_EQ(Run({"update"}).status, 0);
  ASSERT_EQ(Run({"check"}).status, 2);
  EXPECT_THAT(Run({"status"}).output, status("Up to date\\.\n"
                                             "Installed:  " ORBAMIRA_HEVC_PACK " 1\\.0 \\(HEVC\\), since " +
                                             time +
                                             "\n"
                                             "Available:  nothing newer\n"
                                             "Last check: " +
                                             time +
                                             ", nothing new\n"
                                             "To do:      nothing\n"));
  const Json::Value check = RunJson({"status"}, 0)["last_check"];
  EXPECT_EQ(check["version"], "1.0");
  EXPECT_EQ(check["is_news"], false);
  EXPECT_THAT(Run({"status", "--verbose"}).output,
              EndsWith("Recorded:   up_to_date (the last update succeeded)\nPermitted:  check, update\n"));
  ASSERT_EQ(Run({"remove"}).status, 0);
  EXPECT_THAT(Run({"status"}).output, StartsWith("No codec pack is installed.\n"));
}

TEST_F(PackctlTest, StatusSaysWhyTheLastUpdateFailed) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  DemandSignatures();
  appliance_.Publish("2.0", "two");
  ASSERT_EQ(Run({"update"}).status, 1);
  EXPECT_THAT(Run({"status"}).output, AllOf(StartsWith("The last update failed: the package is not signed.\n"),
                                            HasSubstr("To do:      Get a signed package from its publisher.\n")));
  appliance_.SetFault([](const HttpRequest&, HttpResponse& response) { response.status = 500; });
  ASSERT_EQ(Run({"check"}).status, 1);
  EXPECT_THAT(Run({"status"}).output, testing::ContainsRegex("Last check: [^,]+, failed: the update server refuses the "
                                                             "request \\(500\\)\n"));
}

TEST_F(PackctlTest, StatusShowsHowLongTheMakerSupportsTheAppliance) {
  EXPECT_TRUE(RunJson({"status"}, 0)["support_until"].isNull());
  EXPECT_THAT(Run({"status"}).output, Not(HasSubstr("Supported:")));
  WriteFile(path::kDefaultPkgSetting, "support_until=\"2999-12-31\"\n");
  EXPECT_THAT(Run({"status"}).output, HasSubstr("\nSupported:  until 2999-12-31\n"));
  EXPECT_EQ(RunJson({"status"}, 0)["support_until"], "2999-12-31");
  WriteFile(path::kDefaultPkgSetting, "support_until=\"2020-02-29\"\n");
  EXPECT_THAT(Run({"status"}).output, HasSubstr("\nSupported:  ended on 2020-02-29; the maker may no longer close "
                                                "security holes\n"));
  WriteFile(path::kDefaultPkgSetting, "support_until=\"2021-02-29\"\n");
  EXPECT_TRUE(RunJson({"status"}, 0)["support_until"].isNull());
}

TEST_F(PackctlTest, StatusTellsWorkAtHandFromWorkThatWasInterrupted) {
  Status()->SetAsDownloading(3, 4);
  EXPECT_THAT(Run({"status"}).output,
              AllOf(StartsWith("An update was interrupted.\n"), HasSubstr("To do:      Run: sudo packctl recover\n")));
  EXPECT_EQ(RunJson({"status"}, 0)["interrupted"], true);
  ASSERT_EQ(Run({"recover"}).status, 0);
  EXPECT_EQ(RunJson({"status"}, 0)["interrupted"], false);

  appliance_.Publish("1.0", BigPayload());
  ASSERT_EQ(Run({"check"}).status, 0);
  StallPackages();
  RunningProgram update(Appliance::PackctlCommand({"update"}));
  Await([] { return RunJson({"status"}, 0)["download_size_now"].asInt64() > 0; });
  EXPECT_EQ(RunJson({"status"}, 0)["interrupted"], false);
  EXPECT_THAT(Run({"status"}).output, AllOf(StartsWith("An update is at work: downloaded "),
                                            HasSubstr("To do:      Wait. To watch: packctl status --watch\n")));
  appliance_.server().Release();
  EXPECT_EQ(update.Wait().status, 0);
}

TEST_F(PackctlTest, ANoteOfACheckThatWasTornTellsItsTimeAlone) {
  const fs::path note = fs::path(kDownloadFolder).parent_path() / "checked";
  WriteFile(note, "{\"version\"");
  EXPECT_TRUE(RunJson({"status"}, 0)["last_check"]["version"].isNull());
  EXPECT_THAT(Run({"status"}).output, testing::ContainsRegex("\nLast check: [0-9-]+ [0-9:]+ [^ ,]+\n"));
  fs::remove(note);
  fs::create_directory(note);
  EXPECT_TRUE(RunJson({"status"}, 0)["last_check"].isNull());
}

TEST_F(PackctlTest, CheckEndsWith1AndTheReasonWhenTheServerFails) {
  const Json::Value check = RunJson({"check"}, 1);
  EXPECT_EQ(check["command"], "check");
  EXPECT_EQ(check["result"], "failed");
  EXPECT_EQ(check["status"], "lost");
  EXPECT_TRUE(check["version"].isNull());
  EXPECT_EQ(check["error"]["code"], "server_refused");
  EXPECT_EQ(check["error"]["message"], "the update server refuses the request (404)");
  EXPECT_EQ(check["error"]["remedy"], "Run: sudo packctl doctor");
  const std::string sentence =
      "packctl: Check failed: the update server refuses the request (404). No codec pack is installed. Run: sudo "
      "packctl doctor\n";
  EXPECT_EQ(Run({"check"}).errors, sentence);
  EXPECT_EQ(Run({"check", "--verbose"}).errors,
            "packctl: Failed to send request with status: 404\n"
            "packctl: FetchDownloadInfo failed\n"
            "packctl: the check failed; the recorded status is lost\n" +
                sentence);
}

TEST_F(PackctlTest, CheckPointsToRecoverWhileTheStatusSaysWorkIsUnderWay) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  EXPECT_EQ(Run({"check"}).errors, "");
  Status()->SetAsDownloadInstalling();
  const std::string hint = "run \"packctl recover\"\n";
  const ProgramResult nothing_new = Run({"check"});
  EXPECT_EQ(nothing_new.status, 2);
  EXPECT_EQ(nothing_new.errors, "packctl: an update was interrupted; " + hint);
  appliance_.SetFault([](const HttpRequest& /*request*/, HttpResponse& response) { response.status = 500; });
  EXPECT_THAT(Run({"check", "-v"}).errors,
              HasSubstr("packctl: the check failed; the recorded status is downloading_installing; " + hint));
  EXPECT_EQ(Run({"check"}).errors,
            "packctl: Check failed: the update server refuses the request (500). 1.0 stays installed. Run: sudo "
            "packctl recover\n");
  EXPECT_EQ(Status()->GetPackStatus(), updater::kStatusDownloadingInstalling);
}

TEST_F(PackctlTest, DownloadAndInstallDoTheHalves) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(RunJson({"download"}, 0)["status"], "need_install");
  const Json::Value status = RunJson({"status"}, 0);
  EXPECT_EQ(status["new_version"], "1.0");
  EXPECT_EQ(status["new_pack_name"], kHevcPack);
  EXPECT_TRUE(fs::exists(path::kDownloadedOpkPath));
  EXPECT_EQ(RunJson({"recover"}, 0)["status"], "need_install");
  EXPECT_EQ(RunJson({"install"}, 0)["status"], "up_to_date");
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
}

/// Changes when the folder is moved, though it comes back.
std::string PlaceOfPack() {
  struct stat about = {};
  EXPECT_EQ(stat(path::kPackFolderPath, &about), 0);
  return std::to_string(about.st_ino) + " " + std::to_string(about.st_ctim.tv_sec) + " " +
         std::to_string(about.st_ctim.tv_nsec);
}

// The signature used to be checked after plugins had been told and the old pack had been moved aside.
TEST_F(PackctlTest, ARefusedPackageLeavesThePackInItsPlaceAllTheTime) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  const std::string place = PlaceOfPack();
  Appliance::AddJournal();
  appliance_.Publish("2.0", "two");
  DemandSignatures();
  const auto expect_refused = [&](const char* command, const char* status) {
    const ProgramResult result = Run({command});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, EndsWith(" failed: the package is not signed. 1.0 stays installed. Get a signed "
                                        "package from its publisher.\n"));
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
    EXPECT_EQ(Appliance::StatusRecord()["status"], status);
    EXPECT_EQ(PlaceOfPack(), place) << command;
    EXPECT_EQ(Appliance::InstalledPayload(), "one");
    EXPECT_THAT(Appliance::Journal(), IsEmpty()) << command;
  };
  expect_refused("update", "download_install_failed");
  EXPECT_THAT(Run({"status"}).output, HasSubstr("\nAvailable:  2.0\n"));
  ASSERT_EQ(Run({"check"}).status, 0);
  expect_refused("download", "download_failed");

  // A keyring that came between download and install.
  fs::remove(path::kKeyring);
  ASSERT_EQ(Run({"check"}).status, 0);
  ASSERT_EQ(Run({"download"}).status, 0);
  DemandSignatures();
  EXPECT_THAT(Run({"install"}).errors, HasSubstr("not signed"));
  EXPECT_EQ(Appliance::StatusRecord()["status"], "install_failed");
  EXPECT_EQ(Appliance::StatusRecord()["new_version"], "2.0");
  EXPECT_EQ(PlaceOfPack(), place);
  EXPECT_THAT(Appliance::Journal(), IsEmpty());
  fs::remove(path::kKeyring);
  EXPECT_EQ(Run({"install"}).status, 0);
  EXPECT_EQ(Appliance::InstalledPayload(), "two");
}

TEST_F(PackctlTest, AnOperationThatTheStatusForbidsEndsWith3AndNamesWhatIsPermitted) {
  const Json::Value answer = RunJson({"install"}, 3);
  EXPECT_EQ(answer["result"], "not_permitted");
  EXPECT_EQ(answer["status"], "lost");
  EXPECT_EQ(answer["error"]["code"], "not_permitted");
  EXPECT_EQ(answer["error"]["remedy"], "Run: sudo packctl check");
  EXPECT_EQ(Run({"download"}).errors,
            "packctl: Cannot download now: nothing is recorded yet. No codec pack is installed. Run: sudo packctl "
            "check\n");
  Status()->SetAsDownloading();
  EXPECT_EQ(RunJson({"update"}, 3)["error"]["code"], "interrupted");
  EXPECT_EQ(Run({"update"}).errors,
            "packctl: An update was interrupted. No codec pack is installed. Run: sudo packctl recover\n");
}

TEST_F(PackctlTest, ARefusedFlowLeavesTheFoldersOfTheProgramAtWork) {
  appliance_.Publish("1.0", "one");
  Status()->SetAsDownloadInstalling(updater::kStepInstall);
  WriteFile(fs::path(path::kTempPackFolderPath) / "half", "");
  WriteFile(fs::path(kDownloadFolder) / "half", "");
  for (const char* command : {"download", "install", "update"}) {
    EXPECT_EQ(RunJson({command}, 3)["status"], "downloading_installing") << command;
  }
  EXPECT_TRUE(fs::exists(fs::path(path::kTempPackFolderPath) / "half"));
  EXPECT_TRUE(fs::exists(fs::path(kDownloadFolder) / "half"));
}

TEST_F(PackctlTest, AFlowThatCannotReadTheStatusBeginsNothing) {
  store::FileKeyValueStore::Create(path::kPackStatusFile)->Set(webapi::param::kStatus, "dancing");
  WriteFile(fs::path(path::kTempPackFolderPath) / "half", "");
  EXPECT_THAT(Run({"update"}).errors, EndsWith(". No codec pack is installed. Run: sudo packctl recover\n"));
  EXPECT_EQ(RunJson({"update"}, 1)["result"], "failed");
  EXPECT_TRUE(fs::exists(fs::path(path::kTempPackFolderPath) / "half"));
}

TEST_F(PackctlTest, StatusGivesSizesInFullWidth) {
  Status()->SetAsDownloading(0L, 0L);
  const auto record = store::FileKeyValueStore::Create(path::kPackStatusFile);
  record->Set(webapi::param::kDownloadSizeNow, "3000000000");
  record->Set(webapi::param::kDownloadSizeTotal, "4000000000");
  const Json::Value status = RunJson({"status"}, 0);
  EXPECT_EQ(status["status"], "downloading");
  EXPECT_EQ(status["download_size_now"].asInt64(), 3'000'000'000);
  EXPECT_EQ(status["download_size_total"].asInt64(), 4'000'000'000);
  EXPECT_THAT(Run({"status", "-v"}).output, HasSubstr("Download:   2.8 GiB of 3.7 GiB (75 %)\n"));
}

TEST_F(PackctlTest, StatusThatCannotBeReadPointsToRecover) {
  store::FileKeyValueStore::Create(path::kPackStatusFile)->Set(webapi::param::kStatus, "dancing");
  const Json::Value status = RunJson({"status"}, 1);
  EXPECT_EQ(status["result"], "failed");
  EXPECT_EQ(status["error"]["code"], "record_unreadable");
  EXPECT_EQ(status["error"]["remedy"], "Run: sudo packctl recover");
  EXPECT_THAT(Run({"status"}).errors,
              testing::StrEq("packctl: The recorded status cannot be read. Run: sudo packctl recover\n"));
  EXPECT_EQ(RunJson({"recover"}, 0)["status"], "download_install_failed");
  EXPECT_EQ(Run({"status"}).status, 0);
}

TEST_F(PackctlTest, JsonIsTakenBeforeAndAfterTheCommand) {
  EXPECT_EQ(Run({"--json", "status"}).output, Run({"status", "--json"}).output);
}

TEST_F(PackctlTest, InfoWithoutAPackIsAnAnswer) {
  const Json::Value info = RunJson({"info"}, 0);
  EXPECT_EQ(info["installed"], false);
  EXPECT_TRUE(info["version"].isNull());
}

TEST_F(PackctlTest, RemoveEndsWith2WithoutAPack) {
  EXPECT_EQ(RunJson({"remove"}, 2)["result"], "nothing_to_do");
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  const Json::Value removed = RunJson({"remove"}, 0);
  EXPECT_EQ(removed["result"], "done");
  EXPECT_EQ(removed["status"], "up_to_date");
  EXPECT_FALSE(fs::exists(path::kPackFolderPath));
  const ProgramResult again = Run({"remove"});
  EXPECT_EQ(again.status, 2);
  EXPECT_EQ(again.output, "No codec pack is installed.\n");
}

TEST_F(PackctlTest, RemoveAsksWhenAnApplicationNeedsACodec) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  WriteFile(path::kCodecRequirementsPath, R"({"hevc": ["com.example.player", "com.example.tv"], "aac": ["x"]})");
  const ProgramResult refused = Run({"remove"});
  EXPECT_EQ(refused.status, 3);
  EXPECT_EQ(refused.errors,
            "packctl: HEVC is needed by com.example.player, com.example.tv. 1.0 stays installed. Run: sudo packctl "
            "remove --yes\n");
  EXPECT_EQ(RunJson({"remove"}, 3)["error"]["code"], "not_confirmed");
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  WriteFile(path::kCodecRequirementsPath, R"({"hevc": [7]})");
  EXPECT_THAT(Run({"remove"}).errors, StartsWith("packctl: HEVC is needed by an application. "));
  WriteFile(path::kCodecRequirementsPath, "{");
  EXPECT_EQ(Run({"remove"}).status, 3) << "nobody knows";
  EXPECT_EQ(Run({"remove", "--yes"}).output, "Removed 1.0. No codec pack is installed.\n");
  EXPECT_EQ(Run({"remove", "--yes"}).status, 2);
}

/// Runs the command on a terminal where somebody types `answer` when asked; all that was shown, and the exit status.
std::pair<std::string, int> RunOnTerminal(std::vector<std::string> command, const std::string& answer) {
  int master = -1;
  const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0) {
    std::vector<char*> arguments;
    for (std::string& word : command) {
      arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    execv(arguments.front(), arguments.data());
    _exit(98);
  }
  std::string screen;
  bool answered = false;
  std::array<char, 4096> buffer{};
  for (ssize_t length = 0; (length = read(master, buffer.data(), buffer.size())) > 0;) {
    screen.append(buffer.data(), static_cast<std::size_t>(length));
    if (!answered && screen.ends_with("[y/N] ")) {
      answered = write(master, answer.data(), answer.size()) == static_cast<ssize_t>(answer.size());
    }
  }
  close(master);
  int status = 0;
  waitpid(pid, &status, 0);
  return {screen, WEXITSTATUS(status)};
}

TEST_F(PackctlTest, RemoveTakesTheAnswerOfATerminal) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  WriteFile(path::kCodecRequirementsPath, R"({"hevc": ["player"]})");
  const std::vector<std::string> command = Appliance::PackctlCommand({"remove", "--color", "never"});
  const auto [kept, cancelled] = RunOnTerminal(command, "n\n");
  EXPECT_EQ(cancelled, 130);
  EXPECT_THAT(kept, AllOf(HasSubstr("HEVC is needed by player. Remove 1.0? [y/N] "),
                          HasSubstr("packctl: Cancelled. 1.0 stays installed.")));
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  const auto [left, interrupted] = RunOnTerminal(command, "\x03");  // Ctrl-C
  EXPECT_EQ(interrupted, 130);
  EXPECT_THAT(left, HasSubstr("[y/N] ^C\r\npackctl: Cancelled. 1.0 stays installed."));
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  const auto [removed, done] = RunOnTerminal(command, "y\n");
  EXPECT_EQ(done, 0);
  EXPECT_THAT(removed, HasSubstr("Removed 1.0."));
}

TEST_F(PackctlTest, AUserWhoIsNotRootLearnsThatRootIsNeeded) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  const fs::path locks = fs::path(path::kPackStatusLock).parent_path();
  fs::permissions(test::Root(), fs::perms(0755));
  fs::permissions(locks, fs::perms(0));
  test::ProcessOptions options;
  options.before_exec = [] { test::BecomeOrdinaryUser(); };
  const auto errors = [&](const char* command) {
    return test::RunProgram(Appliance::PackctlCommand({command}), options).err;
  };
  EXPECT_EQ(errors("status"),
            "packctl: Reading the status needs root or the group " ORBAMIRA_GROUP ". Try: sudo packctl status\n");
  EXPECT_THAT(errors("update"), StartsWith("packctl: Updating needs root. "));
  EXPECT_THAT(errors("update"), EndsWith("Try: sudo packctl update\n"));
  fs::permissions(locks, fs::perms(0755));
}

TEST_F(PackctlTest, RemoveIsNotPermittedWhileWorkIsUnderWay) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  const auto status = Status();
  for (const std::function<void()>& begin : std::vector<std::function<void()>>{
           [&] { status->SetAsDownloading(); },
           [&] { status->SetAsInstalling(); },
           [&] { status->SetAsDownloadInstalling(); },
       }) {
    begin();
    EXPECT_EQ(RunJson({"remove"}, 3)["result"], "not_permitted");
    EXPECT_EQ(Run({"remove"}).errors,
              "packctl: An update was interrupted. 1.0 stays installed. Run: sudo packctl recover\n");
  }
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  ASSERT_EQ(Run({"recover"}).status, 0);
  EXPECT_EQ(Run({"remove"}).status, 0);
}

TEST_F(PackctlTest, RemoveNeedsAStatusThatCanBeRead) {
  WriteFile(path::kPackInfoPath, "version=1.0\n");
  store::FileKeyValueStore::Create(path::kPackStatusFile)->Set(webapi::param::kStatus, "dancing");
  EXPECT_EQ(RunJson({"remove"}, 1)["result"], "failed");
  EXPECT_THAT(Run({"remove"}).errors, EndsWith(". 1.0 stays installed. Run: sudo packctl recover\n"));
  EXPECT_TRUE(fs::exists(path::kPackInfoPath));
}

TEST_F(PackctlTest, CodecsTellsARequirementsFileThatCannotBeRead) {
  WriteFile(path::kCodecRequirementsPath, R"({"aac": ["player"], "hevc": []})");
  EXPECT_EQ(RunJson({"codecs"}, 0)["requested"], Parse("[\"aac\"]\n"));
  WriteFile(path::kCodecRequirementsPath, "{");
  EXPECT_EQ(RunJson({"codecs"}, 1)["result"], "failed");
  EXPECT_THAT(Run({"codecs"}).errors, HasSubstr(path::kCodecRequirementsPath));
}

TEST_F(PackctlTest, PluginsListsTheIds) {
  EXPECT_EQ(RunJson({"plugins"}, 0)["app_ids"], Parse("[]\n"));
  Appliance::AddPlugin("a", "echo player\n");
  EXPECT_EQ(RunJson({"plugins"}, 0)["app_ids"], Parse("[\"player\"]\n"));
  Appliance::AddPlugin("a", "printf 'pla\\033yer\\n'\n");
  EXPECT_EQ(Run({"plugins"}).output, "pla\\033yer\n");
  fs::remove(path::kGetAppIdPyPath);
  EXPECT_EQ(RunJson({"plugins"}, 1)["result"], "failed");
}

TEST_F(PackctlTest, WhatAPluginPrintsStaysOutOfTheAnswer) {
  Appliance::AddPlugin("noisy", "echo out; echo err >&2\n");
  appliance_.Publish("1.0", "one");
  EXPECT_EQ(RunJson({"update"}, 0)["result"], "done");  // which takes nothing but one line of JSON
}

// The journal, and whoever watches, learns at once what keeps an update waiting.
TEST_F(PackctlTest, WhatAPluginPrintsComesAsItIsPrinted) {
  const std::string gate = (test::Root() / "gate").string();
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  Appliance::AddPlugin("10-player", "echo \"asking $4\"; [ $6 = post ] || read line < '" + gate + "'\n");
  appliance_.Publish("1.0", "one");
  for (const std::vector<std::string>& command : {std::vector<std::string>{"update"}, {"update", "--json"}}) {
    RunningProgram program(Appliance::PackctlCommand(command));
    Await([&] { return program.Errors() == "packctl: 10-player: asking " ORBAMIRA_HEVC_PACK "\n"; });
    std::ofstream(gate) << "go on\n";
    const ProgramResult result = program.Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors,
              "packctl: 10-player: asking " ORBAMIRA_HEVC_PACK "\npackctl: 10-player: asking " ORBAMIRA_HEVC_PACK "\n");
    EXPECT_EQ(Run({"remove"}).status, 0);
  }
}

TEST_F(PackctlTest, AFailedInstallBringsThePreviousPackBack) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  appliance_.Publish("2.0", "two");
  // An archiver that fails: the old pack is out of the way by then.
  fs::remove(path::kTarPath);
  const ProgramResult result = Run({"update", "--verbose"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("Failed to untar archive"));
  EXPECT_THAT(result.errors, HasSubstr("Recovery: restored the previous pack"));
  EXPECT_THAT(result.errors, HasSubstr("packctl: the update failed; the recorded status is download_install_failed\n"));
  EXPECT_THAT(result.errors, EndsWith(". 1.0 stays installed. Run: sudo packctl doctor\n"));
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  EXPECT_EQ(RunJson({"info"}, 0)["version"], "1.0");
}

// The log tells of more than the failure: without a pack, that the current version is empty.
TEST_F(PackctlTest, TheCauseOfAFailureIsWhatEndedTheCommand) {
  appliance_.SetFault([](const HttpRequest&, HttpResponse& response) {
    response.status = 200;
    response.body = R"({")" ORBAMIRA_HEVC_PACK R"(": {"version": "1.0\n"}})";
  });
  EXPECT_EQ(Run({"check"}).errors,
            "packctl: Check failed: the update server's reply offers no pack: its version holds control characters or "
            "is no UTF-8. No codec pack is installed. Run: sudo packctl doctor\n");
}

// What may begin after a failure depends on the command that failed.
TEST_F(PackctlTest, ACommandThatMaySucceedNextTimeIsNamedAsTheRemedy) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"check"}).status, 0);
  for (const std::string command : {"update", "download"}) {
    if (command == "download") {
      ASSERT_EQ(Run({"check"}).status, 0);
    }
    appliance_.SetFault([](const HttpRequest& request, HttpResponse& response) {
      if (request.target.ends_with(".opk")) {
        response.body.back() = 'x';
      }
    });
    EXPECT_THAT(Run({command}).errors, EndsWith(" Run: sudo packctl " + command + "\n"));
    appliance_.SetFault(nullptr);
    EXPECT_EQ(Run({command}).status, 0);
    Run({"remove"});
  }
}

TEST_F(PackctlTest, AnUpdateThatPutNoPackInPlaceIsAFailure) {
  appliance_.Publish("1.0", "one");
  const fs::path copier = fs::read_symlink(path::kCpPath);
  fs::remove(path::kCpPath);
  WriteFile(path::kCpPath, "#!/bin/sh\nmkdir \"$3\"; echo part > \"$3/codec\"; exit 1\n");
  fs::permissions(path::kCpPath, fs::perms(0755));
  const ProgramResult result = Run({"update", "--verbose"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, Not(HasSubstr("installed")));
  EXPECT_THAT(result.errors, HasSubstr("packctl: The new pack did not get into place\n"));
  EXPECT_THAT(result.errors, EndsWith(". No codec pack is installed. Run: sudo packctl doctor\n"));
  EXPECT_FALSE(fs::exists(path::kPackFolderPath));

  ASSERT_EQ(Run({"check"}).status, 0);
  ASSERT_EQ(Run({"download"}).status, 0);
  const Json::Value install = RunJson({"install"}, 1);
  EXPECT_EQ(install["result"], "failed");
  EXPECT_EQ(install["status"], "download_install_failed");
  EXPECT_EQ(install["error"]["code"], "install_failed");
  EXPECT_FALSE(fs::exists(path::kPackFolderPath));

  fs::remove(path::kCpPath);
  fs::create_symlink(copier, path::kCpPath);
  EXPECT_EQ(Run({"update"}).status, 0);
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
}

TEST_F(PackctlTest, AnUpdateEndsWhatAnEarlierRemovalHasLeft) {
  const fs::path left = fs::path(kTargetFolder) / ".removed.aZ09xy";
  WriteFile(left / "INFO", "version=\"1.0\"\n");
  appliance_.Publish("1.0", "one");
  EXPECT_EQ(Run({"update"}).status, 0);
  EXPECT_FALSE(fs::exists(left));
}

TEST_F(PackctlTest, AFailedInstallKeepsThePackageForTheNextTry) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"check"}).status, 0);
  ASSERT_EQ(Run({"download"}).status, 0);
  const fs::path archiver = fs::read_symlink(path::kTarPath);
  fs::remove(path::kTarPath);
  EXPECT_EQ(RunJson({"install"}, 1)["status"], "install_failed");
  fs::create_symlink(archiver, path::kTarPath);
  EXPECT_EQ(RunJson({"install"}, 0)["status"], "up_to_date");
}

TEST_F(PackctlTest, TwoChangesExcludeEachOtherWhileStatusAnswers) {
  appliance_.Publish("1.0", BigPayload());
  StallPackages();
  RunningProgram first(Appliance::PackctlCommand({"update"}));
  Await([] { return RunJson({"status"}, 0)["download_size_now"].asInt64() > 0; });

  for (const char* command : {"check", "download", "install", "update", "remove", "recover", "plugins"}) {
    const ProgramResult second = Run({command});
    EXPECT_EQ(second.status, 75) << command;
    EXPECT_EQ(second.errors, "packctl: Another program is at work: packctl (pid " + std::to_string(first.pid()) +
                                 "). Run: sudo packctl " + command + " --wait 600\n");
  }
  const Json::Value busy = RunJson({"update"}, 75);
  EXPECT_EQ(busy["result"], "busy");
  EXPECT_EQ(busy["error"]["code"], "busy");

  appliance_.server().Release();
  EXPECT_EQ(first.Wait().status, 0);
  EXPECT_EQ(Appliance::InstalledPayload(), BigPayload());
}

TEST_F(PackctlTest, AChangeWaitsForAnotherOneToEnd) {
  appliance_.Publish("1.0", BigPayload());
  StallPackages();
  RunningProgram first(Appliance::PackctlCommand({"update"}));
  Await([] { return RunJson({"status"}, 0)["download_size_now"].asInt64() > 0; });
  EXPECT_EQ(Run({"check", "--wait", "1"}).status, 75);
  RunningProgram second(Appliance::PackctlCommand({"check", "--wait", "600"}));
  appliance_.server().Release();
  EXPECT_EQ(first.Wait().status, 0);
  EXPECT_EQ(second.Wait().output, "Nothing new: 1.0 is installed, the server offers 1.0.\n");
}

TEST_F(PackctlTest, UpdateInstallsNothingThatIsNotNewerUnlessAsked) {
  appliance_.Publish("1.0.0", "one");
  EXPECT_THAT(Run({"update"}).output, testing::ContainsRegex("Installed 1\\.0\\.0 in (under 1|[0-9]+) s\\.\n$"));
  const std::string place = PlaceOfPack();
  ASSERT_EQ(Run({"check"}).status, 2);
  const ProgramResult again = Run({"update"});
  EXPECT_EQ(again.status, 2);
  EXPECT_EQ(again.output, "Already up to date (1.0.0).\n");
  EXPECT_EQ(again.errors, "");
  EXPECT_EQ(PlaceOfPack(), place);
  const Json::Value answer = RunJson({"update"}, 2);
  EXPECT_EQ(answer["result"], "nothing_new");
  EXPECT_EQ(answer["version"], "1.0.0");
  EXPECT_EQ(answer["installed_version"], "1.0.0");
  EXPECT_EQ(RunJson({"history"}, 0)["entries"].size(), 1U);
  fs::remove(path::kPackStatusFile);
  EXPECT_EQ(Run({"update"}).status, 2) << "a lost record, too";

  EXPECT_THAT(Run({"update", "--reinstall"}).output, HasSubstr("Installed 1.0.0 again in "));
  EXPECT_NE(PlaceOfPack(), place);
  appliance_.Publish("1.1.0", "two");
  EXPECT_THAT(Run({"update"}).output,
              testing::ContainsRegex("Installed 1\\.1\\.0 \\(was 1\\.0\\.0\\) in (under 1|[0-9]+) s\\.\n$"));
  WriteFile(path::kCodecRequirementsPath, R"({"aac": ["player"]})");
  appliance_.Publish("1.1.0", "both", kHevcAacPack);
  EXPECT_EQ(Run({"update"}).status, 0) << "the same version with what an application asks for";
}

TEST_F(PackctlTest, AnUpdateThatGetsNoAnswerChangesNothing) {
  appliance_.Publish("1.1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  const std::string settings = test::ReadFile(path::kPkgSetting);
  const test::RefusingPort refusing;
  const std::string server = refusing.Url("");
  WriteFile(path::kPkgSetting, "pack_update_server=" + server + "/reply.json\n");
  const std::string cannot =
      "packctl: Cannot reach the update server (" + server.substr(7) + ": connection refused). 1.1.0 stays installed.";
  EXPECT_THAT(Run({"update"}).errors, StartsWith(cannot));
  EXPECT_THAT(Run({"check"}).errors, StartsWith(cannot));
  EXPECT_EQ(Appliance::StatusRecord()["status"], "up_to_date");
  WriteFile(path::kPkgSetting, settings);
  appliance_.SetFault([](const HttpRequest&, HttpResponse& response) { response.body = "{}"; });
  EXPECT_THAT(Run({"check"}).errors, StartsWith("packctl: The server offers no HEVC pack. 1.1.0 stays installed."));
  EXPECT_EQ(RunJson({"update"}, 1)["error"]["code"], "no_pack_offered");
}

TEST_F(PackctlTest, AFailureNamesTheVersionThatWasToBeInstalled) {
  appliance_.Publish("1.5.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  DemandSignatures();
  appliance_.Publish("1.6.0", "two");
  const std::string refused = " failed: the package is not signed. 1.5.0 stays installed.";
  EXPECT_THAT(Run({"update"}).errors, StartsWith("packctl: Update to 1.6.0" + refused));
  ASSERT_EQ(Run({"check"}).status, 0);
  EXPECT_THAT(Run({"download"}).errors, StartsWith("packctl: Download of 1.6.0" + refused));
}

TEST_F(PackctlTest, ADownloadSaysWhatStaysAndWhatComesNext) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"check"}).status, 0);
  EXPECT_THAT(Run({"download"}).output,
              EndsWith("Downloaded 1.0. No codec pack is installed. Run: sudo packctl install\n"));
  ASSERT_EQ(Run({"install"}).status, 0);
  EXPECT_EQ(Run({"remove"}).output, "Removed 1.0. No codec pack is installed.\n");
}

// What applications ask for decides which pack is asked for, so this ends a check and an update.
TEST_F(PackctlTest, RequirementsThatCannotBeReadAreNotTheServersFault) {
  appliance_.Publish("1.0", "one");
  WriteFile(path::kCodecRequirementsPath, "[]");
  for (const char* command : {"check", "update"}) {
    EXPECT_EQ(RunJson({command}, 1)["error"]["code"], "requirements_unreadable") << command;
  }
  WriteFile(path::kCodecRequirementsPath, "{}");
  appliance_.SetFault([](const HttpRequest&, HttpResponse& response) { response.body = "[]"; });
  EXPECT_EQ(RunJson({"check"}, 1)["error"]["code"], "bad_reply");
}

TEST_F(PackctlTest, QuietSaysNothingButWhyItFailed) {
  appliance_.Publish("1.0", "one");
  Appliance::AddPlugin("noisy", "echo out\n");
  const ProgramResult update = Run({"update", "--quiet"});
  EXPECT_EQ(update.status, 0);
  EXPECT_EQ(update.output + update.errors, "");
  EXPECT_EQ(Run({"check", "-q"}).output, "");
  appliance_.SetFault([](const HttpRequest&, HttpResponse& response) { response.status = 500; });
  EXPECT_EQ(
      Run({"check", "-q"}).errors,
      "packctl: Check failed: the update server refuses the request (500). 1.0 stays installed. Run: sudo packctl "
      "doctor\n");
  EXPECT_EQ(RunJson({"check", "-q"}, 1)["result"], "failed");
}

TEST_F(PackctlTest, ColourIsForTerminalsAndForThoseWhoAsk) {
  appliance_.Publish("1.0", "one");
  EXPECT_THAT(Run({"check"}).output, Not(HasSubstr("\033")));
  EXPECT_THAT(Run({"check", "--color", "always"}).output,
              AllOf(StartsWith("\033[32m1.0 is available"), EndsWith("\033[0m\n")));
  EXPECT_THAT(Run({"--color", "always", "install"}).errors, HasSubstr("packctl: \033[33mCannot install now"));
  EXPECT_THAT(Run({"check", "--color", "always", "--json"}).output, Not(HasSubstr("\033")));
  EXPECT_EQ(Run({"check", "--color", "sometimes"}).status, 64);
}

TEST_F(PackctlTest, AnUpdateThatIsCancelledCleansUp) {
  appliance_.Publish("1.2.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  appliance_.Publish("1.3.0", BigPayload());
  for (const int signal : {SIGINT, SIGTERM}) {
    ASSERT_EQ(Run({"check"}).status, 0);
    StallPackages();
    RunningProgram update(Appliance::PackctlCommand({"update"}));
    Await([] { return RunJson({"status"}, 0)["download_size_now"].asInt64() > 0; });
    update.Signal(signal);
    const ProgramResult result = update.Wait();
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.errors, "packctl: Cancelled. 1.2.0 stays installed.\n");
    EXPECT_EQ(Appliance::StatusRecord()["status"], "download_install_failed");
    EXPECT_FALSE(fs::exists(kDownloadFolder));
    appliance_.SetFault({});
  }
  const Json::Value last = RunJson({"history", "--limit", "1"}, 0)["entries"][0];
  EXPECT_EQ(last["command"], "update");
  EXPECT_EQ(last["result"], "cancelled");
  EXPECT_EQ(last["error"]["code"], "cancelled");
  EXPECT_THAT(Run({"history"}).output, HasSubstr("  update    Cancelled. 1.2.0 stays installed.\n"));
  EXPECT_THAT(Run({"status"}).output, AllOf(StartsWith("The last update was cancelled.\n"),
                                            HasSubstr("To do:      Run: sudo packctl update\n")));
  EXPECT_THAT(Run({"status", "--color", "always"}).output, StartsWith("\033[33m"));
  EXPECT_EQ(Run({"update"}).status, 0);
}

// Until they have ended, they may change what is to be put in order. Here a plugin looks whether that is done too
// early.
TEST_F(PackctlTest, ACancelledUpdateWaitsForItsProgramsAndIsNotCancelledAgain) {
  appliance_.Publish("1.2.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  Appliance::AddPlugin("10-player", "pack='" + std::string(path::kPackFolderPath) + "'\n" + R"(
    look() {
      : > "$ORBAMIRA_ROOT/ending"
      n=0
      while [ $n -lt 200 ] && [ ! -e "$pack" ]; do n=$((n + 1)); /bin/true; done
      [ ! -e "$pack" ] || : > "$ORBAMIRA_ROOT/early"
      exit
    }
    [ $2 = uninstall ] || [ $6 = post ] || {
      trap look TERM
      mkfifo "$ORBAMIRA_ROOT/gate"
      exec 3<> "$ORBAMIRA_ROOT/gate"
      echo here
      read line <&3
    }
)");
  RunningProgram held(Appliance::PackctlCommand({"update", "--reinstall"}));
  Await([&] { return held.Errors() == "packctl: 10-player: here\n"; });
  held.Signal(SIGTERM);
  Await([] { return fs::exists(test::Root() / "ending"); });
  held.Signal(SIGINT);
  const ProgramResult result = held.Wait();
  EXPECT_EQ(result.status, 130);
  EXPECT_THAT(result.errors, EndsWith("packctl: Cancelled. 1.2.0 stays installed.\n"));
  EXPECT_FALSE(fs::exists(test::Root() / "early"));
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
}

// It gives the lock up for a moment, in which another program may take it.
TEST_F(PackctlTest, ACancelledUpdateComesToItsLockAgain) {
  appliance_.Publish("1.2.0", BigPayload());
  StallPackages();
  RunningProgram update(Appliance::PackctlCommand({"update"}));
  Await([] { return RunJson({"status"}, 0)["download_size_now"].asInt64() > 0; });
  auto taker = std::async(std::launch::async, [] { return std::make_unique<store::FileLock>(path::kPackctlLock); });
  const std::string waiting = "-> FLOCK  ADVISORY  WRITE " + std::to_string(getpid()) + " ";
  Await([&] { return test::ReadFile("/proc/locks").find(waiting) != std::string::npos; });
  update.Signal(SIGTERM);
  auto lock = taker.get();
  for (int i = 0; i < 5; ++i) {
    Run({"status"});  // meanwhile it asks for the lock
  }
  lock.reset();
  EXPECT_EQ(update.Wait().status, 130);
  EXPECT_EQ(RunJson({"status"}, 0)["status"], "download_install_failed");
}

// The library waits for the plugin, and for a reply that never comes.
TEST_F(PackctlTest, WhatAnUpdateWaitsForDoesNotKeepItFromBeingCancelled) {
  appliance_.Publish("1.2.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  const std::string gate = (test::Root() / "gate").string();
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  Appliance::AddPlugin("10-player",
                       "[ $2 = uninstall ] || [ $6 = post ] || { echo here; read line < '" + gate + "'; }\n");
  RunningProgram held(Appliance::PackctlCommand({"update", "--reinstall", "--json"}));
  Await([&] { return held.Errors() == "packctl: 10-player: here\n"; });
  EXPECT_FALSE(fs::exists(path::kPackFolderPath)) << "the old pack is out of the way";
  held.Signal(SIGTERM);
  const ProgramResult result = held.Wait();
  EXPECT_EQ(result.status, 130);
  EXPECT_THAT(result.errors, EndsWith("packctl: Cancelled. 1.2.0 stays installed.\n"));
  EXPECT_EQ(Parse(result.output)["result"], "cancelled");
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
  fs::remove(fs::path(path::kPluginFolder) / "10-player");

  appliance_.SetFault([](const HttpRequest&, HttpResponse& response) { response.stall_at = 0; });
  RunningProgram silent(Appliance::PackctlCommand({"update"}));
  Await([] { return RunJson({"status"}, 0)["status"] == "downloading_installing"; });
  silent.Signal(SIGINT);
  EXPECT_EQ(silent.Wait().status, 130);
  appliance_.server().Release();
  appliance_.SetFault({});
  EXPECT_EQ(Run({"update"}).status, 0);
}

TEST_F(PackctlTest, RecoverMendsWhatAKilledUpdateLeft) {
  appliance_.Publish("1.0", BigPayload());
  StallPackages();
  RunningProgram update(Appliance::PackctlCommand({"update"}));
  Await([] { return RunJson({"status"}, 0)["download_size_now"].asInt64() > 0; });
  update.Signal(SIGKILL);
  EXPECT_EQ(update.Wait().status, -SIGKILL);
  EXPECT_EQ(Run({"update"}).status, 3);

  const Json::Value recovered = RunJson({"recover"}, 0);
  EXPECT_EQ(recovered["status"], "download_install_failed");
  EXPECT_EQ(recovered["actions"].size(), 2U);
  EXPECT_EQ(recovered["failures"].size(), 0U);
  EXPECT_EQ(Run({"recover"}).output, "Everything is in order. No codec pack is installed.\n");
  appliance_.SetFault({});
  EXPECT_EQ(Run({"update"}).status, 0);
}

TEST_F(PackctlTest, RecoverTellsWhatItCouldNotDo) {
  const fs::path folder = fs::path(path::kPackFolderPath).parent_path();
  fs::remove_all(folder);
  WriteFile(folder, "a file in the way");
  const Json::Value recovered = RunJson({"recover"}, 1);
  fs::remove(folder);
  ASSERT_FALSE(recovered["failures"].empty());
  EXPECT_THAT(recovered["failures"][0].asString(), StartsWith("cannot make the folders: " + folder.string()));
}

TEST_F(PackctlTest, RecoverGoesOnWithAFolderInPlaceOfTheStatusStore) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  fs::remove(path::kPackStatusFile);
  WriteFile(fs::path(path::kPackStatusFile) / "file", "text");
  const Json::Value recovered = RunJson({"recover"}, 0);
  EXPECT_EQ(recovered["status"], "up_to_date");
  EXPECT_EQ(recovered["failures"].size(), 0U);
  EXPECT_EQ(test::ReadFile(std::string(path::kPackStatusFile) + ".broken/file"), "text");
  EXPECT_EQ(Run({"update", "--reinstall"}).status, 0);
  EXPECT_EQ(RunJson({"status"}, 0)["status"], "up_to_date");
}

TEST_F(PackctlTest, WhatStandsInTheWayIsNamedAndOnceItIsGoneAllIsWell) {
  appliance_.Publish("1.0", "one");
  const std::string locks = fs::path(path::kPackctlLock).parent_path();
  struct Obstacle {
    std::string file;     // stands in the way
    std::string path;     // of this
    std::string command;  // which then cannot be done
    std::string problem;
  };
  const std::vector<Obstacle> obstacles = {
      {locks, locks, "update", "Cannot make the folder " + locks + ": " + test::ErrorText(ENOTDIR)},
      {std::string(path::kPackctlLock) + "/file", path::kPackctlLock, "update",
       std::string("Cannot open the lock ") + path::kPackctlLock + ": " + test::ErrorText(EISDIR)},
      {kTargetFolder, kTargetFolder, "update",
       std::string("cannot make the folder ") + path::kTempPackFolderPath + ": " + test::ErrorText(ENOTDIR)},
      {kTargetFolder, kTargetFolder, "recover",
       std::string("cannot make the folders: ") + kTargetFolder + ": " + test::ErrorText(ENOTDIR)},
      {kDownloadFolder, kDownloadFolder, "update",
       std::string("cannot make the folder ") + kDownloadFolder + ": " + test::ErrorText(ENOTDIR)},
  };
  for (const Obstacle& obstacle : obstacles) {
    fs::remove_all(obstacle.path);
    WriteFile(obstacle.file, "in the way");
    const ProgramResult result =
        obstacle.command == "update" ? Run({"update", "--reinstall"}) : Run({obstacle.command});
    EXPECT_EQ(result.status, 1) << obstacle.problem;
    EXPECT_THAT(result.errors, HasSubstr(obstacle.problem));
    fs::remove_all(obstacle.path);
    EXPECT_EQ(Run({"recover"}).status, 0) << obstacle.problem;
    EXPECT_EQ(Run({"update", "--reinstall"}).status, 0) << obstacle.problem;
    EXPECT_EQ(Appliance::InstalledPayload(), "one");
  }
}

TEST_F(PackctlTest, PlainProgressIsWrittenToAFile) {
  appliance_.Publish("1.0", BigPayload());
  StallPackages();
  RunningProgram update(Appliance::PackctlCommand({"update"}));
  Await([&] { return update.Output().find("Downloaded ") != std::string::npos; });
  appliance_.server().Release();
  const ProgramResult result = update.Wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, testing::ContainsRegex("\nInstalled 1\\.0 in (under 1|[0-9]+) s\\.\n$"));
  EXPECT_THAT(result.output, Not(HasSubstr("\r")));
}

TEST_F(PackctlTest, ATerminalGetsOneLineThatIsRedrawnAndEnded) {
  appliance_.Publish("1.0", BigPayload());
  StallPackages();
  int master = -1;
  int slave = -1;
  winsize size{.ws_row = 24, .ws_col = 100, .ws_xpixel = 0, .ws_ypixel = 0};
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
  fcntl(master, F_SETFD, FD_CLOEXEC);
  fcntl(slave, F_SETFD, FD_CLOEXEC);
  std::vector<std::string> command = {"/usr/bin/env", "-u", "NO_COLOR", "TERM=xterm"};
  std::ranges::copy(Appliance::PackctlCommand({"update"}), std::back_inserter(command));
  RunningProgram update(command, slave);
  close(slave);
  std::string screen;
  const auto read_some = [&] {
    std::array<char, 4096> buffer{};
    const ssize_t length = read(master, buffer.data(), buffer.size());
    screen.append(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    return length > 0;
  };
  while (screen.find("MiB [") == std::string::npos) {
    ASSERT_TRUE(read_some()) << screen;
  }
  appliance_.server().Release();
  while (read_some()) {
  }
  close(master);
  EXPECT_EQ(update.Wait().status, 0);
  EXPECT_THAT(screen, HasSubstr("%"));
  EXPECT_THAT(screen, testing::ContainsRegex("\r\n\033\\[32mInstalled 1\\.0 in (under 1|[0-9]+) s\\.\033\\[0m\r\n$"));
}

TEST_F(PackctlTest, ALimitOnTheSizeOfFilesIsAFailureAndNoDeath) {
  appliance_.Publish("1.0", test::PatternOf(1 << 20));
  test::ProcessOptions options;
  options.before_exec = [] {
    const rlimit limit{64UL << 10, 64UL << 10};
    setrlimit(RLIMIT_FSIZE, &limit);
  };
  const test::ProcessResult result = RunProgram(Appliance::PackctlCommand({"update"}), options);
  EXPECT_TRUE(result.Exited(1)) << result;
  EXPECT_THAT(result.err, HasSubstr("Update to 1.0 failed: the package cannot be downloaded ("));
}

TEST_F(PackctlTest, ClosedStandardDescriptorsDoNotStopACommand) {
  appliance_.Publish("1.0", "one");
  const auto run_closed = [](const std::string& command, const std::vector<int>& closed) {
    test::ProcessOptions options;
    options.before_exec = [&closed] {
      for (const int fd : closed) {
        close(fd);
      }
    };
    return test::RunProgram(Appliance::PackctlCommand({command}), options);
  };
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    EXPECT_TRUE(run_closed("status", {fd}).Exited(0)) << fd;
  }
  EXPECT_TRUE(run_closed("check", {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}).Exited(0));
  EXPECT_EQ(RunJson({"status"}, 0)["new_version"], "1.0");
  EXPECT_TRUE(run_closed("update", {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}).Exited(0));
  EXPECT_EQ(Appliance::InstalledPayload(), "one");
}

TEST_F(PackctlTest, AnAnswerThatCannotBeWrittenIsAFailure) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  RunningProgram status(Appliance::PackctlCommand({"status"}), full);
  close(full);
  const ProgramResult result = status.Wait();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "packctl: cannot write to the standard output\n");
}

/// A record that an update left.
struct Remains {
  const char* name;
  std::function<void(const updater::IPackStatusHelper&)> record;
};

void PrintTo(const Remains& remains, std::ostream* out) { *out << remains.name; }

/// Who goes on from it.
enum class GoesOn { kTimers, kPage };

void PrintTo(GoesOn who, std::ostream* out) { *out << (who == GoesOn::kTimers ? "ByTimers" : "ByThePage"); }

class TimersTest : public PackctlTest, public testing::WithParamInterface<std::tuple<Remains, GoesOn>> {
 protected:
  TimersTest() {
    WriteFile(path::kPkgSetting, test::ReadFile(path::kPkgSetting) + "update_policy=auto_download_auto_install\n");
  }

  /// What the boot does, and the units of the timers on one day or the one behind the page's button.
  static void BootAndOneDay() {
    EXPECT_EQ(Run({"recover"}).status, 0);
    if (Run({"check"}).status == 0) {
      std::vector<std::string> update = {"update"};
      if (std::get<GoesOn>(GetParam()) == GoesOn::kTimers) {
        update.emplace_back("--automatic");
      }
      EXPECT_EQ(Run(update).status, 0);
    }
  }
};

// The cut came after the new pack was in place, so that its version was no news, and no timer went on.
TEST_P(TimersTest, BringEveryRecordUpToDateWithoutAPerson) {
  for (const char* offered : {"2.0", "1.0", "3.0"}) {
    for (const bool installed : {true, false}) {
      if (!installed && std::string(offered) != "2.0") {
        continue;  // without a pack one offer is as good as another
      }
      appliance_.Publish("2.0", "pack 2.0");
      ASSERT_EQ(Run({"update"}).status, 0);
      if (!installed) {
        ASSERT_EQ(Run({"remove"}).status, 0);
      }
      std::get<Remains>(GetParam()).record(*Status());
      appliance_.Publish(offered, std::string("pack ") + offered);
      BootAndOneDay();
      EXPECT_EQ(Appliance::StatusRecord()["status"], "up_to_date") << installed << offered;
      EXPECT_FALSE(fs::exists(kDownloadFolder)) << installed << offered;
      const bool stays = installed && std::string(offered) == "1.0";
      EXPECT_EQ(Appliance::InstalledPayload(), std::string("pack ") + (stays ? "2.0" : offered)) << installed;
      fs::remove_all(path::kPackFolderPath);
    }
  }
}

using Helper = updater::IPackStatusHelper;

INSTANTIATE_TEST_SUITE_P(
    EveryRecord, TimersTest,
    testing::Combine(
        testing::Values(Remains{"Lost", [](const Helper&) { fs::remove(path::kPackStatusFile); }},
                        Remains{"Downloading", [](const Helper& h) { h.SetAsDownloading(1, 2); }},
                        Remains{"DownloadFailed", [](const Helper& h) { h.SetAsDownloadFailed(); }},
                        Remains{"RepetitionThatNeverBegan", [](const Helper& h) { h.SetAsNeedDownload("2.0"); }},
                        Remains{"OfferThatWasTakenBack", [](const Helper& h) { h.SetAsNeedDownload("2.5"); }},
                        Remains{"NeedInstallWithoutFile", [](const Helper& h) { h.SetAsNeedInstall("2.0", "n"); }},
                        Remains{"Installing", [](const Helper& h) { h.SetAsInstalling(updater::kStepInstall); }},
                        Remains{"InstallFailed", [](const Helper& h) { h.SetAsInstallFailed("2.0", "n"); }},
                        Remains{"InstallFailedWithFile",
                                [](const Helper& h) {
                                  WriteFile(path::kDownloadedOpkPath, "part");
                                  h.SetAsInstallFailed("2.0", "n");
                                }},
                        Remains{"DownloadingInstalling",
                                [](const Helper& h) { h.SetAsDownloadInstalling(updater::kStepInstall); }},
                        Remains{"DownloadInstallFailed", [](const Helper& h) { h.SetAsDownloadInstallFailed(); }}),
        testing::Values(GoesOn::kTimers, GoesOn::kPage)),
    [](const auto& param) {
      return std::get<Remains>(param.param).name +
             std::string(std::get<GoesOn>(param.param) == GoesOn::kTimers ? "" : "ByThePage");
    });

TEST_F(PackctlTest, CheckSaysThatAFailedUpdateIsDueAgain) {
  appliance_.Publish("1.0", "one");
  ASSERT_EQ(Run({"update"}).status, 0);
  Status()->SetAsDownloadInstallFailed();
  EXPECT_EQ(Run({"check"}).output, "The last update failed; 1.0 can be installed again. Run: sudo packctl update\n");
  EXPECT_EQ(RunJson({"status"}, 0)["status"], "need_download");
  Status()->SetAsDownloadInstallFailed();
  appliance_.SetFault([](const HttpRequest&, HttpResponse& response) { response.status = 500; });
  EXPECT_EQ(Run({"check"}).status, 1) << "a server that does not answer offers nothing";
  EXPECT_EQ(RunJson({"status"}, 0)["status"], "download_install_failed");
}

TEST_F(PackctlTest, CheckSaysThatACancelledUpdateIsDueAgain) {
  appliance_.Publish("1.0", BigPayload());
  ASSERT_EQ(Run({"update"}).status, 0);
  StallPackages();
  RunningProgram update(Appliance::PackctlCommand({"update", "--reinstall"}));
  Await([] { return RunJson({"status"}, 0)["download_size_now"].asInt64() > 0; });
  update.Signal(SIGINT);
  ASSERT_EQ(update.Wait().status, 130);
  appliance_.SetFault([](const HttpRequest&, HttpResponse& response) { response.status = 500; });
  EXPECT_EQ(Run({"check"}).status, 1) << "the newest entry of the history is not the update's";
  appliance_.SetFault({});
  EXPECT_EQ(Run({"check"}).output,
            "The last update was cancelled; 1.0 can be installed again. Run: sudo packctl update\n");
}

}  // namespace
}  // namespace orbamira
