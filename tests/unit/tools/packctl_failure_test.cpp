#include <gmock/gmock.h>

#include <cstring>
#include <set>

#include "platform/constants.h"
#include "tests/support/test_root.h"
#include "tools/packctl/view/failure_words.h"

namespace orbamira::packctl {
namespace {

using testing::HasSubstr;

constexpr int kReasons = static_cast<int>(FailureReason::kUnexpected) + 1;

// Those of the account never come to the page, and of what is unexpected it has no more to say than was said.
TEST(FailureReasonTest, ThePageHasASentenceForEveryReasonThatAnUpdateMayHave) {
  const std::string sentences = test::ReadFile(ORBAMIRA_SOURCE "/tools/packctl/web/page/reasons.js");
  for (int number = 0; number < static_cast<int>(FailureReason::kAccountFailed); ++number) {
    EXPECT_THAT(sentences, HasSubstr(std::string("\n  ") + CodeOf(static_cast<FailureReason>(number)) + ": \""));
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
  return {
      {"no_space", {.log = {"Failed to download pack: x: " + full, "DoDownload failed"}}, "the disk is full"},
      {"no_space", {.programs = {archive + "unpacks to more than the 5 bytes that are free"}}, "the disk is full"},
      {"not_signed",
       {.programs = {archive + "not signed"}, .log = {"Failed to verify checksum of downloaded file."}},
       "the package is not signed"},
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
       "Failed to download pack to /p from link: l, status code: 404"},
      {"keyring_unusable",
       {.programs = {archive + path::kKeyring + ": contains no certificate"}},
       archive + path::kKeyring + ": contains no certificate"},
      {"bad_signature",
       {.programs = {archive + "MANIFEST.sig: has no signer"}},
       archive + "MANIFEST.sig: has no signer"},
      {"bad_package", {.programs = {"player: here", archive + "truncated archive"}}, archive + "truncated archive"},
      {"bad_package", {.programs = {"orba-tar: /p: damaged member"}}, "orba-tar: /p: damaged member"},
      {"install_failed", {.programs = {"orba-copy: /p: broken"}}, "orba-copy: /p: broken"},
      {"install_failed",
       {.log = {"Failed to untar archive a to b", "Failed to install pack: x", "DoInstall failed"}},
       "Failed to untar archive a to b"},
      {"install_failed", {.log = {"The new pack did not get into place"}}, "The new pack did not get into place"},
      {"checksum_mismatch",
       {.log = {"Failed to verify checksum of downloaded file."}},
       "the package is not the one that the server announced"},
      {"bad_reply", {.log = {"Failed to parse response", "FetchDownloadInfo failed"}}, "Failed to parse response"},
      {"bad_reply", {.log = {"Get orbamira-hevc info failed"}}, "Get orbamira-hevc info failed"},
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
  EXPECT_EQ(FailureSentence("update", failure, "1.0"),
            "Update failed: the package is not signed. Version 1.0 stays installed. Get another.");
  EXPECT_EQ(FailureSentence("check", failure, std::nullopt),
            "Check failed: the package is not signed. No codec pack is installed. Get another.");
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
