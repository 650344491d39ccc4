// What packctl does by itself with a pack on offer, as a timer starts it, and what it tells of a pack that waits.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <json/reader.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <sstream>

#include "platform/constants.h"
#include "tests/support/appliance.h"
#include "tests/support/test_root.h"
#include "updater/pack_manager.h"
#include "updater/pack_status_helper.h"

namespace orbamira {
namespace {

namespace fs = std::filesystem;

using test::Appliance;
using test::ProgramResult;
using test::WriteFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr std::time_t kHour = 60L * 60;
constexpr std::time_t kDay = 24 * kHour;

std::string StateFile(const std::string& name) { return fs::path(path::kHistoryFile).replace_filename(name); }

/// A file that this process has mapped, as a player has the library that it loaded.
class MappedFile {
 public:
  explicit MappedFile(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    place_ = mmap(nullptr, kSize, PROT_READ, MAP_PRIVATE, fd, 0);
    close(fd);
  }
  ~MappedFile() { munmap(place_, kSize); }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  [[nodiscard]] bool is_mapped() const { return place_ != MAP_FAILED; }

 private:
  static constexpr std::size_t kSize = 4096;
  void* place_;
};

class PackctlPolicyTest : public testing::Test {
 protected:
  PackctlPolicyTest() : settings_(test::ReadFile(path::kPkgSetting)) {
    appliance_.Publish("1.0", "old codec");
    EXPECT_EQ(Run({"update"}).status, 0);
    appliance_.Publish("1.1", "new codec");
  }

  static ProgramResult Run(const std::vector<std::string>& arguments) { return Appliance::Packctl(arguments); }

  static Json::Value RunJson(std::vector<std::string> arguments, int status) {
    arguments.emplace_back("--json");
    const ProgramResult result = Run(arguments);
    EXPECT_EQ(result.status, status) << result.errors;
    Json::Value value;
    std::istringstream(result.output) >> value;
    return value;
  }

  /// Sets these beside the address of the server.
  void Set(const std::string& lines) { WriteFile(path::kPkgSetting, settings_ + lines); }

  /// What a timer does.
  static Json::Value Automatic(int status) { return RunJson({"update", "--automatic"}, status); }

  /// Lets the offer say this too.
  static void MarkOffer(const std::string& key, const Json::Value& value) {
    const std::string file = (test::Root() / "srv/reply.json").string();
    Json::Value reply;
    std::istringstream(test::ReadFile(file)) >> reply;
    reply[kHevcPack][key] = value;
    WriteFile(file, reply.toStyledString());
  }

  /// The offer was seen first so long ago.
  static void SeenSince(std::time_t seconds) {
    Json::Value note;
    std::istringstream(test::ReadFile(StateFile("offer.json"))) >> note;
    note["first_seen"] = Json::Int64{std::time(nullptr) - seconds};
    WriteFile(StateFile("offer.json"), note.toStyledString());
  }

  /// A window from then to then, seen from now.
  static std::string Window(std::time_t begin, std::time_t end) {
    return "install_window=" + TimeOfDay(begin) + "-" + TimeOfDay(end) + "\n";
  }

  static std::vector<std::string> HistoryResults() {
    std::vector<std::string> results;
    const Json::Value history = RunJson({"history"}, 0);
    for (const Json::Value& entry : history["entries"]) {
      results.push_back(entry["command"].asString() + " " + entry["result"].asString() +
                        (entry["error"].isNull() ? "" : " " + entry["error"]["code"].asString()));
    }
    return results;
  }

  static std::string Status() { return Appliance::StatusRecord()["status"]; }

  Appliance appliance_;
  std::string settings_;

 private:
  static std::string TimeOfDay(std::time_t from_now) {
    const std::time_t time = std::time(nullptr) + from_now;
    std::tm parts{};
    std::array<char, 8> text{};
    std::strftime(text.data(), text.size(), "%H:%M", localtime_r(&time, &parts));
    return text.data();
  }
};

constexpr const char* kInstall = "update_policy=auto_download_auto_install\n";
constexpr const char* kDownload = "update_policy=auto_download_manual_install\n";

TEST_F(PackctlPolicyTest, PackWaitsForAPersonWhereNothingIsSet) {
  EXPECT_EQ(Run({"check"}).status, 0);
  const Json::Value answer = Automatic(2);
  EXPECT_EQ(answer["result"], "waits");
  EXPECT_EQ(answer["error"]["code"], "waits_for_person");
  EXPECT_EQ(Status(), "need_download");
  EXPECT_EQ(RunJson({"status"}, 0)["wait"]["code"], "waits_for_person");
  EXPECT_EQ(Run({"update"}).status, 0);
  EXPECT_EQ(Appliance::InstalledPayload(), "new codec");
  EXPECT_TRUE(RunJson({"status"}, 0)["wait"].isNull());
}

TEST_F(PackctlPolicyTest, NothingIsDoneBeforeACheckFindsAPack) {
  Set(kInstall);
  EXPECT_EQ(Automatic(2)["result"], "nothing_to_do");
  EXPECT_EQ(Appliance::InstalledPayload(), "old codec");
}

TEST_F(PackctlPolicyTest, PackIsInstalledByItselfWhereThePolicySaysSo) {
  Set(kInstall);
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_TRUE(fs::exists(StateFile("offer.json")));
  EXPECT_EQ(Automatic(0)["result"], "done");
  EXPECT_EQ(Appliance::InstalledPayload(), "new codec");
  EXPECT_FALSE(fs::exists(StateFile("offer.json")));
}

// It was killed after the new pack was in place, so that its version is no news, and plugins may not know of it.
TEST_F(PackctlPolicyTest, FailedUpdateIsRepeatedByItself) {
  Set(kInstall);
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Automatic(0)["result"], "done");
  updater::PackStatusHelper::Create()->SetAsDownloadInstallFailed();
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Automatic(0)["result"], "done");
  EXPECT_EQ(Status(), "up_to_date");
  EXPECT_FALSE(fs::exists(StateFile("offer.json")));
}

TEST_F(PackctlPolicyTest, RepetitionOfARejectedVersionIsNoWork) {
  Set(kInstall);
  EXPECT_EQ(Run({"update"}).status, 0);
  updater::PackStatusHelper::Create()->SetAsNeedDownload("1.1");
  WriteFile(path::kHealthFile, R"({"rejected":[{"version":"1.1","reason":"bad","time":1}]})");
  EXPECT_EQ(Automatic(2)["result"], "nothing_to_do");
}

// The timers do nothing about an offer that is not kept, and the check that they begin with is what tells of it.
TEST_F(PackctlPolicyTest, CheckThatCannotKeepTheOfferFails) {
  const std::string in_the_way = StateFile("offer.json");
  fs::create_directories(in_the_way);
  Json::Value answer = RunJson({"check"}, 1);
  EXPECT_EQ(answer["result"], "failed");
  EXPECT_EQ(answer["version"], "1.1");
  EXPECT_THAT(Run({"check", "--verbose"}).errors, HasSubstr("cannot keep since when the pack is on offer: "));
  EXPECT_EQ(Run({"download"}).status, 0);
  answer = RunJson({"check"}, 1);
  EXPECT_EQ(answer["result"], "failed");
  EXPECT_EQ(answer["version"], "1.1");
  fs::remove(in_the_way);
  EXPECT_EQ(RunJson({"check"}, 0)["result"], "new_pack");
  EXPECT_TRUE(fs::is_regular_file(in_the_way));
}

TEST_F(PackctlPolicyTest, DownloadedPackWaitsForAPersonThroughLaterChecks) {
  Set(kDownload);
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Automatic(0)["result"], "downloaded");
  EXPECT_EQ(Automatic(2)["error"]["code"], "waits_for_person");
  EXPECT_EQ(RunJson({"check"}, 0)["result"], "new_pack");
  EXPECT_EQ(Status(), "need_install");
  EXPECT_EQ(Run({"install"}).status, 0);
  EXPECT_EQ(Appliance::InstalledPayload(), "new codec");
}

TEST_F(PackctlPolicyTest, NewerOfferTakesThePlaceOfADownloadedPack) {
  Set(kDownload);
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Automatic(0)["result"], "downloaded");
  appliance_.Publish("1.2", "newest codec");
  Set(kInstall);
  EXPECT_EQ(Automatic(0)["result"], "done");
  EXPECT_EQ(Appliance::InstalledPayload(), "newest codec");
}

TEST_F(PackctlPolicyTest, WindowIsWaitedForWithThePackageReady) {
  Set(kInstall + Window(2 * kHour, 3 * kHour));
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Automatic(0)["result"], "downloaded");
  const Json::Value waits = Automatic(2);
  EXPECT_EQ(waits["error"]["code"], "outside_window");
  EXPECT_GT(waits["wait"]["until"].asInt64(), std::time(nullptr));
  EXPECT_LE(waits["wait"]["until"].asInt64(), std::time(nullptr) + 4 * kHour);
  EXPECT_THAT(Run({"status"}).output, HasSubstr("Waits:      it is installed in its window of time, until "));
  Set(kInstall + Window(-kHour, kHour));
  EXPECT_EQ(Automatic(0)["result"], "done");
  EXPECT_EQ(Appliance::InstalledPayload(), "new codec");
}

TEST_F(PackctlPolicyTest, APersonWaitsForNoWindow) {
  Set(kInstall + Window(2 * kHour, 3 * kHour));
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Run({"update"}).status, 0);
  EXPECT_EQ(Appliance::InstalledPayload(), "new codec");
}

TEST_F(PackctlPolicyTest, WaitEndsAfterSoManyDays) {
  Set(kInstall + Window(2 * kHour, 3 * kHour) + "install_wait_days=2\n");
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Automatic(0)["result"], "downloaded");
  SeenSince(2 * kDay - kHour);
  EXPECT_EQ(Automatic(2)["error"]["code"], "outside_window");
  SeenSince(2 * kDay);
  EXPECT_EQ(Automatic(0)["result"], "done");
}

// The clock showed 1970 when the offer was seen, and is right since.
TEST_F(PackctlPolicyTest, ClockThatWasWrongMakesNoOfferOld) {
  Set(kInstall + Window(2 * kHour, 3 * kHour));
  EXPECT_EQ(Run({"check"}).status, 0);
  for (const std::time_t wrong : {std::time(nullptr), -30 * kDay}) {
    SeenSince(wrong);
    EXPECT_EQ(RunJson({"status"}, 0)["wait"]["code"], "outside_window") << wrong;
  }
}

TEST_F(PackctlPolicyTest, FilmGoesOn) {
  Set(kInstall);
  EXPECT_EQ(Run({"check"}).status, 0);
  {
    const MappedFile player(fs::path(path::kPackFolderPath) / "codec");
    ASSERT_TRUE(player.is_mapped());
    EXPECT_EQ(Automatic(0)["result"], "downloaded");
    EXPECT_EQ(Automatic(2)["error"]["code"], "in_use");
    EXPECT_EQ(RunJson({"status"}, 0)["wait"]["code"], "in_use");
    EXPECT_EQ(Appliance::InstalledPayload(), "old codec");
  }
  EXPECT_EQ(Automatic(0)["result"], "done");
  EXPECT_EQ(Appliance::InstalledPayload(), "new codec");
}

// A service lends it for the look at programs that use the pack.
TEST_F(PackctlPolicyTest, PluginsMayNotLookIntoProcesses) {
  Set(kInstall);
  EXPECT_EQ(Run({"check"}).status, 0);
  const std::string rights = (test::Root() / "rights").string();
  Appliance::AddPlugin("10-rights", "grep CapPrm: /proc/self/status > '" + rights + "'\n");
  std::vector<std::string> command = Appliance::PackctlCommand({"update", "--automatic"});
  command.insert(command.begin(), {"/usr/bin/setpriv", "--no-new-privs"});
  EXPECT_EQ(test::RunningProgram(command).Wait().status, 0);
  constexpr unsigned int kPtrace = 19;
  const std::string text = test::ReadFile(rights);
  ASSERT_THAT(text, testing::StartsWith("CapPrm:\t"));
  EXPECT_EQ(std::stoul(text.substr(8), nullptr, 16) >> kPtrace & 1U, 0U);
}

// It uses a pack that is gone already.
TEST_F(PackctlPolicyTest, ProgramThatUsesAnOlderPackIsNotWaitedFor) {
  const MappedFile player(fs::path(path::kPackFolderPath) / "codec");
  ASSERT_TRUE(player.is_mapped());
  EXPECT_EQ(Run({"update"}).status, 0);
  appliance_.Publish("1.2", "newest codec");
  Set(kInstall);
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Automatic(0)["result"], "done");
}

TEST_F(PackctlPolicyTest, HoldKeepsAnUpdateAwayAndTellsAPerson) {
  Set(kInstall);
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Run({"hold"}).status, 0);
  EXPECT_EQ(Run({"hold"}).status, 2);
  EXPECT_EQ(Automatic(2)["error"]["code"], "held");
  EXPECT_TRUE(RunJson({"status"}, 0)["hold"].isObject());
  const Json::Value refused = RunJson({"update"}, 3);
  EXPECT_EQ(refused["error"]["code"], "held");
  EXPECT_THAT(refused["error"]["remedy"].asString(), HasSubstr("--despite-hold"));
  EXPECT_EQ(Appliance::InstalledPayload(), "old codec");
  EXPECT_EQ(Run({"unhold"}).status, 0);
  EXPECT_EQ(Run({"unhold"}).status, 2);
  EXPECT_EQ(Automatic(0)["result"], "done");
}

TEST_F(PackctlPolicyTest, HeldPackIsInstalledForAPersonWhoInsists) {
  EXPECT_EQ(Run({"hold"}).status, 0);
  EXPECT_EQ(Run({"update", "--despite-hold"}).status, 0);
  EXPECT_EQ(Appliance::InstalledPayload(), "new codec");
  EXPECT_TRUE(RunJson({"status"}, 0)["hold"].isObject());
}

TEST_F(PackctlPolicyTest, HoldEndsAtItsDate) {
  EXPECT_EQ(RunJson({"hold", "--until", "2199-12-24 18:30"}, 0)["hold"]["until"].type(), Json::intValue);
  EXPECT_THAT(Run({"status"}).output, HasSubstr("updates are held until 2199-12-24 18:30:00"));
  WriteFile(StateFile("hold.json"), R"({"until": 1})");
  EXPECT_TRUE(RunJson({"status"}, 0)["hold"].isNull());
  EXPECT_EQ(Run({"update"}).status, 0);
}

TEST_F(PackctlPolicyTest, HoldWantsADateThatIsToCome) {
  for (const char* date : {"2020-01-01", "tomorrow", "2199-02-31", "2199-12-24x", "2199-13-01"}) {
    const Json::Value answer = RunJson({"hold", "--until", date}, 1);
    EXPECT_THAT(answer["error"]["message"].asString(), HasSubstr(date));
  }
  EXPECT_FALSE(fs::exists(StateFile("hold.json")));
}

// Whoever wrote it wanted no update.
TEST_F(PackctlPolicyTest, DamagedHoldHoldsAndTheDoctorTells) {
  for (const char* text : {"{", "{}", R"({"until": "tomorrow"})"}) {
    WriteFile(StateFile("hold.json"), text);
    EXPECT_EQ(RunJson({"update"}, 3)["error"]["code"], "held") << text;
    EXPECT_THAT(Run({"doctor"}).output, HasSubstr("the hold is damaged")) << text;
    EXPECT_EQ(Run({"unhold"}).status, 0) << text;
  }
}

TEST_F(PackctlPolicyTest, HoldIsNoFaultForTheDoctor) {
  for (const std::vector<std::string>& hold :
       {std::vector<std::string>{"hold"}, std::vector<std::string>{"hold", "--until", "2199-12-24"}}) {
    EXPECT_EQ(Run(hold).status, 0);
    EXPECT_THAT(Run({"doctor"}).output, Not(HasSubstr("hold")));
  }
}

TEST_F(PackctlPolicyTest, SecurityReleaseIsInstalledByItself) {
  MarkOffer("security", true);
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Automatic(0)["result"], "done");
  EXPECT_EQ(Appliance::InstalledPayload(), "new codec");
}

TEST_F(PackctlPolicyTest, OwnerMayOptOutOfSecurityReleases) {
  MarkOffer("security", true);
  Set("security_install=by_policy\n");
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Automatic(2)["error"]["code"], "waits_for_person");
}

// The hole is closed: the release after it waits as any other.
TEST_F(PackctlPolicyTest, SecurityReleaseThatAnotherProgramInstalledHasNoHeir) {
  MarkOffer("security", true);
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_TRUE(updater::PackManager::Create()->DownloadAndInstall());
  EXPECT_EQ(Appliance::InstalledPayload(), "new codec");
  appliance_.Publish("1.2", "newer codec");
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Automatic(2)["error"]["code"], "waits_for_person");
}

TEST_F(PackctlPolicyTest, SecurityReleaseIsHeldOnlySoLong) {
  MarkOffer("security", true);
  EXPECT_EQ(Run({"hold"}).status, 0);
  EXPECT_EQ(Run({"check"}).status, 0);
  EXPECT_EQ(Automatic(2)["error"]["code"], "held");
  SeenSince(3 * kDay);
  EXPECT_EQ(Automatic(0)["result"], "done");
}

TEST_F(PackctlPolicyTest, HistoryTellsOfAReasonOnce) {
  EXPECT_EQ(Run({"check"}).status, 0);
  Automatic(2);
  Automatic(2);
  EXPECT_EQ(Run({"hold"}).status, 0);
  Automatic(2);
  EXPECT_THAT(HistoryResults(), ElementsAre("update waits held", "hold done", "update waits waits_for_person",
                                            "check new_pack", "update done"));
  EXPECT_THAT(Run({"history"}).output, HasSubstr("1.1 waits: updates are held (held)."));
}

TEST_F(PackctlPolicyTest, SettingThatCannotBeUnderstoodLeavesInstallsToAPerson) {
  for (const char* line : {"update_policy=sometimes\n", "install_window=at night\n"}) {
    Set(kInstall);
    Set(line + std::string(line[0] == 'i' ? kInstall : ""));
    EXPECT_EQ(Run({"check"}).status, 0);
    const ProgramResult run = Run({"update", "--automatic", "--verbose"});
    EXPECT_EQ(run.status, 2);
    EXPECT_THAT(run.errors, HasSubstr("cannot be understood"));
    EXPECT_THAT(run.errors, HasSubstr("leaves it to you"));
  }
  EXPECT_EQ(Appliance::InstalledPayload(), "old codec");
}

TEST_F(PackctlPolicyTest, ServerThatIsGoneFailsTheUpdateAndKeepsTheOffer) {
  Set(kInstall);
  EXPECT_EQ(Run({"check"}).status, 0);
  const test::RefusingPort nobody;
  WriteFile(path::kPkgSetting, std::string(common::kPackUpdateServer) + "=" + nobody.Url() + "\n" + kInstall);
  EXPECT_EQ(Automatic(1)["error"]["code"], "server_unreachable");
  EXPECT_EQ(Status(), "need_download");
  EXPECT_EQ(Appliance::InstalledPayload(), "old codec");
}

// What was withdrawn is not installed.
TEST_F(PackctlPolicyTest, OfferThatIsGoneIsForgotten) {
  Set(kInstall);
  EXPECT_EQ(Run({"check"}).status, 0);
  appliance_.Publish("1.0", "old codec");
  EXPECT_EQ(Automatic(2)["result"], "nothing_to_do");
  EXPECT_EQ(Appliance::InstalledPayload(), "old codec");
  EXPECT_FALSE(fs::exists(StateFile("offer.json")));
}

}  // namespace
}  // namespace orbamira
