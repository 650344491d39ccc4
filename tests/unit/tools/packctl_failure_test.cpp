#include <gmock/gmock.h>

#include <chrono>
#include <cstring>
#include <set>

#include "platform/constants.h"
#include "tests/support/http_server.h"
#include "tests/support/test_root.h"
#include "tools/packctl/view/connection_words.h"
#include "tools/packctl/view/failure_words.h"
#include "tools/packctl/view/result_words.h"

namespace orbamira::packctl {
namespace {

using testing::HasSubstr;

constexpr int kReasons = static_cast<int>(FailureReason::kUnexpected) + 1;

// Those of the account never come to the page, and of what is unexpected it has no more to say than was said.
TEST(FailureReasonTest, ThePageHasASentenceForEveryReasonThatAnUpdateMayHave) {
  for (const char* file : {"/tools/packctl/web/page/words.js", "/tests/browser/words.de.js"}) {
    const std::string sentences = test::ReadFile(std::string(ORBAMIRA_SOURCE) + file);
    for (int number = 0; number < static_cast<int>(FailureReason::kAccountFailed); ++number) {
      EXPECT_THAT(sentences, HasSubstr(std::string("\n    ") + CodeOf(static_cast<FailureReason>(number)) + ": {"));
    }
  }
}

TEST(FailureReasonTest, EveryReasonHasACodeOfItsOwnWhichTheDocumentsTell) {
  const std::string page = test::ReadFile(ORBAMIRA_SOURCE "/docs/reasons.md");
  const std::string schema = test::ReadFile(ORBAMIRA_SOURCE "/packaging/packctl.schema.json");
  std::set<std::string> codes;
  for (int number = 0; number < kReasons; ++number) {
    const std::string code = CodeOf(static_cast<FailureReason>(number));
    codes.insert(code);
    EXPECT_THAT(page, HasSubstr("\n| `" + code + "` | "));
    EXPECT_THAT(schema, HasSubstr("            \"" + code + "\""));
  }
  EXPECT_EQ(codes.size(), static_cast<std::size_t>(kReasons));
}

/// What was said, and what comes of it.
struct Case {
  const char* code;
  Said said;
  std::string message;
};

std::vector<Case> Cases() {
  const std::string archive = "orba-archive: /codec-pack.opk: ";
  const std::string full = std::strerror(ENOSPC);
  const std::string denied = std::strerror(EACCES);
  const std::string broken = std::strerror(EIO);
  return {
      {"no_space", {.log = {"Failed to download pack: x: " + full, "DoDownload failed"}}, "the disk is full"},
      {"file_unusable",
       {.log = {"Failed to download pack: cannot read the package file: /stick/p.opk: " +
                std::string(std::strerror(EIO))}},
       "the package file cannot be read (/stick/p.opk: " + std::string(std::strerror(EIO)) + ")"},
      {"no_space", {.programs = {archive + "unpacks to more than the 5 bytes that are free"}}, "the disk is full"},
      {"disk_error", {.programs = {archive + "INFO: " + broken}}, "the disk reports an error"},
      {"disk_error", {.programs = {"orba-copy: /p: " + broken}}, "the disk reports an error"},
      {"disk_error",
       {.problems = {"open lock file /l: " + std::string(std::strerror(EROFS))}},
       "the disk is read-only"},
      {"disk_error",
       {.log = {"Open download file /p failed", "DoDownload failed"}},
       "the disk does not take the package"},
      {"not_signed",
       {.programs = {archive + "not signed"}, .log = {"Failed to verify checksum of downloaded file."}},
       "the package is not signed"},
      {"no_network_module",
       {.log = {"Failed to send request with error: cannot load the network module: /network.so: no such file"}},
       "the updater's network module is missing or does not fit"},
      {"no_network_module",
       {.log = {"Failed to download pack: the network module /network.so is not of version 1"}},
       "the updater's network module is missing or does not fit"},
      {"server_unreachable",
       {.log = {"Failed to send request with error: refused", "FetchDownloadInfo failed"}},
       "cannot reach the update server (refused)"},
      {"server_refused",
       {.log = {"Failed to send request with status: 404"}},
       "the update server refuses the request (404)"},
      {"download_failed",
       {.log = {"Failed to download pack: http://h/p: reset", "DoDownload failed"}},
       "the package cannot be downloaded (http://h/p: reset)"},
      {"download_failed",
       {.log = {"Failed to download pack to /p from link: l, status code: 404"}},
       "the package cannot be downloaded (l, status code: 404)"},
      {"keyring_unusable",
       {.programs = {archive + path::kKeyring + ": contains no certificate"}},
       std::string("the keyring cannot be used (") + path::kKeyring + ": contains no certificate)"},
      {"bad_signature",
       {.programs = {archive + "MANIFEST.sig: has no signer"}},
       "the package's signature is not valid (MANIFEST.sig: has no signer)"},
      {"clock_behind",
       {.programs = {archive +
                     "MANIFEST.sig: not yet valid; the clock says 1970-01-01, so it was judged as of 2026-11-21"}},
       "the clock is wrong, so the package's signature cannot be checked (MANIFEST.sig: not yet valid; the clock says "
       "1970-01-01, so it was judged as of 2026-11-21)"},
      {"manifest_too_old",
       {.programs = {archive + "MANIFEST: of format 1, and the settings demand 2"}},
       "the package is of an older form than the settings accept (MANIFEST: of format 1, and the settings demand 2)"},
      {"manifest_too_new",
       {.programs = {archive + "MANIFEST: of format 3, which this updater does not know"}},
       "the package needs a newer updater (MANIFEST: of format 3, which this updater does not know)"},
      {"info_mismatch",
       {.programs = {archive + "INFO: not what MANIFEST says: its version is \"3\", not 2"}},
       "the package contradicts its own signature (INFO: not what MANIFEST says: its version is \"3\", not 2)"},
      {"wrong_product",
       {.programs = {archive + "made for the product a, and this is b"}},
       "the package is for another product (made for the product a, and this is b)"},
      {"not_as_offered",
       {.programs = {archive + "not the pack on offer: it has a 2.5, and a 3.0 is on offer"}},
       "the package is not the one on offer (it has a 2.5, and a 3.0 is on offer)"},
      {"bad_setting",
       {.programs = {archive + "/updater.conf: unpack_limit is not a number of bytes: 16G"}},
       "a setting cannot be used (/updater.conf: unpack_limit is not a number of bytes: 16G)"},
      {"bad_setting",
       {.log = {"Failed to download pack: http://a/b: /updater.conf: download_limit is not a number of bytes: 1G: x"}},
       "a setting cannot be used (/updater.conf: download_limit is not a number of bytes: 1G: x)"},
      {"bad_setting",
       {.log = {"Failed to send request with error: a setting cannot be used: /updater.conf: proxy is not an address"}},
       "a setting cannot be used (/updater.conf: proxy is not an address)"},
      {"older_version",
       {.log = {"Download failed: the version on offer, 1.0, is older than the installed 2.0"}},
       "the version on offer, 1.0, is older than the installed 2.0"},
      {"package_expired",
       {.programs = {archive + "was to be installed until 2026-01-31, and today is 2026-11-22"}},
       "the package is out of date (was to be installed until 2026-01-31, and today is 2026-11-22)"},
      {"older_version",
       {.programs = {archive + "its version 1.0 is older than the installed 2.0"}},
       "the package is older than what is installed (its version 1.0 is older than the installed 2.0)"},
      {"below_minimum",
       {.programs = {archive + "its version 1.0 is older than the minimum 1.5"}},
       "the package is older than its publisher permits (its version 1.0 is older than the minimum 1.5)"},
      {"bad_package",
       {.programs = {"player: here", archive + "truncated archive"}},
       "the package is damaged (truncated archive)"},
      {"bad_package", {.programs = {"orba-tar: /p: damaged member"}}, "the package is damaged (damaged member)"},
      {"bad_package", {.programs = {"orba-tar: odd"}}, "the package is damaged (orba-tar: odd)"},
      {"install_failed", {.programs = {"orba-copy: /p: broken"}}, "orba-copy: /p: broken"},
      {"install_failed",
       {.log = {"Failed to untar archive a to b", "Failed to install pack: x", "DoInstall failed"}},
       "Failed to untar archive a to b"},
      {"install_failed", {.log = {"The new pack did not get into place"}}, "The new pack did not get into place"},
      {"checksum_mismatch",
       {.log = {"Failed to verify checksum of downloaded file."}},
       "the package is not the one that the server announced"},
      {"bad_reply",
       {.log = {"Failed to parse response", "FetchDownloadInfo failed"}},
       "the update server's reply is not JSON"},
      {"no_pack_offered",
       {.log = {std::string("Get ") + kHevcPack + " info failed"}},
       "the server offers no HEVC pack"},
      {"no_pack_offered",
       {.log = {std::string("Get ") + kHevcAacPack + " info failed"}},
       "the server offers no HEVC pack with AAC"},
      {"bad_reply",
       {.log = {"Download and install failed: Type is not convertible to string"}},
       "the update server's reply is malformed"},
      {"bad_reply",
       {.problems = {"in Json::Value::find(begin, end): requires objectValue or nullValue"}},
       "the update server's reply is malformed"},
      {"bad_reply",
       {.log = {"Check new pack failed: Exceeded stackLimit in readValue()."}},
       "the update server's reply is malformed"},
      {"requirements_unreadable",
       {.log = {"Check new pack failed: in Json::Value::find(): x"},
        .problems = {std::string(path::kCodecRequirementsPath) + ": in Json::Value::find(): x"}},
       std::string(path::kCodecRequirementsPath) + " cannot be read"},
      {"bad_reply",
       {.log = {"Check new pack failed: the update server's reply offers no pack: its link is over 2048 bytes long"}},
       "the update server's reply offers no pack: its link is over 2048 bytes long"},
      {"not_configured", {.log = {"Bad request: url: "}}, "Bad request: url: "},
      {"not_configured",
       {.log = {"Ignored /etc/s: everyone may write it", "Bad request: url: "}},
       "Ignored /etc/s: everyone may write it"},
      {"record_unreadable",
       {.log = {"Install failed: x"}, .problems = {"the recorded status cannot be read; \"packctl recover\" mends it"}},
       "the recorded status cannot be read"},
      {"permission_denied", {.problems = {"cannot open the lock /l: " + denied}}, "cannot open the lock /l: " + denied},
      {"unexpected", {.log = {"Current pack version is empty", "Check new pack failed: words"}}, "words"},
      {"unexpected", {.log = {"Download failed: words"}, .problems = {"the download failed"}}, "words"},
      {"unexpected", {.problems = {"one", "two"}}, "one"},
      {"unexpected", {}, "the reason is not known"},
  };
}

TEST(FailureTest, ExplainFailureFindsTheReasonInWhatWasSaid) {
  for (const Case& expected : Cases()) {
    const Failure failure = ExplainFailure("update", expected.said);
    EXPECT_EQ(failure.code, expected.code) << failure.message;
    EXPECT_EQ(failure.message, expected.message);
    EXPECT_NE(failure.remedy, "");
  }
}

TEST(FailureTest, TheRemedyNamesTheCommandThatFailed) {
  const Said full{.programs = {std::strerror(ENOSPC)}};
  EXPECT_EQ(ExplainFailure("download", full).remedy, "Make room, then run: sudo packctl download");
  const Said other{.log = {"Failed to verify checksum of downloaded file."}};
  EXPECT_EQ(ExplainFailure("update", other).remedy, "Run: sudo packctl update");
}

TEST(FailureTest, ARecordThatWantsARecoveryMakesThatTheRemedy) {
  const Said said{.log = {"Failed to parse response"}, .problems = {"the check failed; run \"packctl recover\""}};
  EXPECT_EQ(ExplainFailure("check", said).remedy, "Run: sudo packctl recover");
}

TEST(FailureTest, TheAccountsFailuresHaveACodeOfTheirOwn) {
  const Failure failure = ExplainFailure("account sign-in", {.problems = {"no answer came"}});
  EXPECT_EQ(failure.code, "account_failed");
  EXPECT_EQ(failure.message, "no answer came");
  EXPECT_EQ(failure.remedy, "Mend that, then run: sudo packctl account sign-in");
}

TEST(FailureTest, FailureSentenceSaysWhatStaysInstalled) {
  const Failure failure = MakeFailure(FailureReason::kNotSigned, "the package is not signed", "Get another.");
  EXPECT_EQ(FailureSentence({.command = "update"}, failure, "1.0"),
            "Update failed: the package is not signed. 1.0 stays installed. Get another.");
  EXPECT_EQ(FailureSentence({.command = "check"}, failure, std::nullopt),
            "Check failed: the package is not signed. No codec pack is installed. Get another.");
  EXPECT_EQ(FailureSentence(failure), "The package is not signed. Get another.");
}

TEST(FailureTest, FailureSentenceNamesTheVersionThatTheWorkWasAbout) {
  const Failure failure = MakeFailure(FailureReason::kNotSigned, "the package is not signed", "");
  const auto sentence = [&](const char* command) {
    return FailureSentence({.command = command, .version = "1.6.0"}, failure, "1.5.0");
  };
  const std::string rest = " failed: the package is not signed. 1.5.0 stays installed.";
  EXPECT_EQ(sentence("update"), "Update to 1.6.0" + rest);
  EXPECT_EQ(sentence("download"), "Download of 1.6.0" + rest);
  EXPECT_EQ(sentence("remove"), "Removal of 1.6.0" + rest);
  EXPECT_EQ(FailureSentence({.command = "recover"}, failure, ""),
            "Recovery failed: the package is not signed. The installed pack stays.");
}

TEST(FailureTest, AReasonThatSaysItAllBeginsTheSentence) {
  const Work work{.command = "update", .version = "2.0"};
  EXPECT_EQ(
      FailureSentence(work, MakeFailure(FailureReason::kNoPackOffered, "the server offers no HEVC pack", "Do."), "1.0"),
      "The server offers no HEVC pack. 1.0 stays installed. Do.");
  EXPECT_EQ(FailureSentence(work, MakeFailure(FailureReason::kBusy, "another program is at work", "Wait."), "1.0"),
            "Another program is at work. Wait.")
      << "what will be installed is not known";
}

TEST(ConnectionWordsTest, NamesAddressAndCause) {
  const test::RefusingPort refusing;
  const std::string address = refusing.Url("").substr(7);
  const std::string port = address.substr(address.find(':') + 1);
  EXPECT_EQ(ConnectionWords("Failed to connect to 127.0.0.1 port " + port + " after 0 ms: Couldn't connect to server"),
            "127.0.0.1:" + port + ": connection refused");
  EXPECT_EQ(ConnectionWords("Failed to connect to nas.invalid port 80 after 7 ms: Could not connect to server"),
            "nas.invalid:80: no connection");
  EXPECT_EQ(ConnectionWords("Failed to connect to fe80::1 port 80 after 30001 ms: Timeout was reached"),
            "[fe80::1]:80: timeout was reached");
}

TEST(ConnectionWordsTest, LeavesOtherWordsAlone) {
  for (const char* words : {"", "Could not resolve host: nas.invalid", "Failed to connect to a port 80 after 7 ms",
                            "Failed to connect to a after 7 ms: port 80 is closed"}) {
    EXPECT_EQ(ConnectionWords(words), words);
  }
}

TEST(ResultWordsTest, AWordIsQuotedAsAShellReadsIt) {
  EXPECT_EQ(QuotedWord("/media/stick/pack-1.0.opk"), "/media/stick/pack-1.0.opk");
  EXPECT_EQ(QuotedWord("my stick"), "'my stick'");
  EXPECT_EQ(QuotedWord("it's"), R"('it'\''s')");
  EXPECT_EQ(QuotedWord(""), "''");
}

TEST(ResultWordsTest, InstalledSentenceSaysWhatWasBeforeAndHowLongItTook) {
  using std::chrono::milliseconds;
  const PackIdentity now{kHevcPack, "1.1.0"};
  EXPECT_EQ(InstalledSentence(now, PackIdentity{kHevcPack, "1.0.0"}, milliseconds(6700)),
            "Installed 1.1.0 (was 1.0.0) in 7 s.");
  EXPECT_EQ(InstalledSentence(now, now, milliseconds(499)), "Installed 1.1.0 again in under 1 s.");
  EXPECT_EQ(InstalledSentence(now, std::nullopt, milliseconds(125'000)), "Installed 1.1.0 in 2 min 5 s.");
}

TEST(ResultWordsTest, InstalledSentenceNamesTheCodecsOfAnotherPack) {
  const auto sentence = [](const PackIdentity& now, const PackIdentity& before) {
    return InstalledSentence(now, before, std::chrono::milliseconds(1000));
  };
  EXPECT_EQ(sentence({kHevcAacPack, "1.2.0"}, {kHevcPack, "1.2.0"}),
            "Installed 1.2.0 with HEVC and AAC (was HEVC) in 1 s.");
  EXPECT_EQ(sentence({kHevcPack, "1.3.0"}, {kHevcAacPack, "1.2.0"}),
            "Installed 1.3.0 with HEVC (was 1.2.0 with HEVC and AAC) in 1 s.");
  EXPECT_EQ(sentence({kHevcPack, "1.2.0"}, {"other-pack", "1.2.0"}),
            "Installed 1.2.0 with HEVC (was other-pack) in 1 s.");
  EXPECT_EQ(sentence({kHevcPack, "1.2.0"}, {"", "1.1.0"}), "Installed 1.2.0 (was 1.1.0) in 1 s.");
}

TEST(FailureTest, FailureJsonIsReadBackAndNothingElseIs) {
  const Failure failure = MakeFailure(FailureReason::kBusy, "message", "remedy");
  const Json::Value json = FailureJson(failure);
  EXPECT_EQ(json["code"], "busy");
  EXPECT_EQ(FailureFromJson(json), failure);
  EXPECT_TRUE(FailureJson(std::nullopt).isNull());
  EXPECT_EQ(FailureFromJson(Json::Value()), std::nullopt);
  for (const char* member : {"code", "message", "remedy"}) {
    Json::Value less = json;
    less.removeMember(member);
    EXPECT_EQ(FailureFromJson(less), std::nullopt) << member;
  }
}

}  // namespace
}  // namespace orbamira::packctl
