#include "tools/packctl/view/failure_words.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <system_error>

#include "platform/constants.h"
#include "platform/paths.h"
#include "tools/packctl/view/connection_words.h"
#include "tools/packctl/view/result_words.h"
#include "updater/update_request.h"

namespace orbamira::packctl {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* kDoctor = "Run: sudo packctl doctor";
constexpr const char* kRecover = "Run: sudo packctl recover";

enum class Speaker { kAnyone, kPrograms };

enum class Words {
  kOwn,          ///< the rule's
  kOwnAndRest,   ///< the rule's, and in parentheses what stands behind the sign
  kOwnAndCause,  ///< the rule's, and in parentheses what a program says behind its name and a file's
  kLine,         ///< the line's
};

/// A reason, and the sign by which it is known.
struct Rule {
  FailureReason reason;
  Speaker speaker;
  std::string sign;
  Words words;
  std::string message;
  std::string remedy;
};

std::string WordsOf(std::errc error) { return std::make_error_code(error).message(); }

// Whatever else is said, because of it nothing else can be judged.
std::vector<Rule> RulesForSettings() {
  std::vector<Rule> rules = {{FailureReason::kBadSetting, Speaker::kAnyone,
                              "a setting cannot be used: ", Words::kOwnAndRest, "a setting cannot be used", kDoctor}};
  for (const std::string key : {common::kMinimumManifestFormat, common::kUnpackLimit, common::kDownloadLimit}) {
    for (const char* const verdict : {" is neither ", " is not a number of bytes: "}) {
      rules.push_back({FailureReason::kBadSetting, Speaker::kAnyone, ": " + key + verdict, Words::kOwnAndCause,
                       "a setting cannot be used", kDoctor});
    }
  }
  return rules;
}

std::string OlderRemedy(const std::string& command) {
  const std::string install = command.starts_with("install") ? command : "update";
  return "Get a newer package. To go back all the same, run: sudo packctl " + install + " --allow-older";
}

// Of a package whose signature holds, or would if the clock were right.
std::vector<Rule> RulesForSignedPackages(const std::string& command) {
  using enum FailureReason;
  const auto programs = Speaker::kPrograms;
  const std::string publisher = "Get another package from its publisher.";
  const std::string older = OlderRemedy(command);
  return {
      {kClockBehind, programs, "; the clock says ", Words::kOwnAndCause,
       "the clock is wrong, so the package's signature cannot be checked",
       "Set the clock, then run: sudo packctl " + command},
      {kManifestTooOld, programs, "MANIFEST: of format 1", Words::kOwnAndCause,
       "the package is of an older form than the settings accept", publisher},
      {kManifestTooNew, programs, ", which this updater does not know", Words::kOwnAndCause,
       "the package needs a newer updater", "Update the appliance's system first."},
      {kInfoMismatch, programs, "INFO: not what MANIFEST says", Words::kOwnAndCause,
       "the package contradicts its own signature", publisher},
      {kWrongProduct, programs, "made for the product ", Words::kOwnAndCause, "the package is for another product",
       publisher},
      {kNotAsOffered, programs, "not the pack on offer: ", Words::kOwnAndRest, "the package is not the one on offer",
       publisher},
      {kPackageExpired, programs, "was to be installed until ", Words::kOwnAndCause, "the package is out of date",
       older},
      {kOlderVersion, programs, " is older than the installed ", Words::kOwnAndCause,
       "the package is older than what is installed", older},
      {kBelowMinimum, programs, " is older than the minimum ", Words::kOwnAndCause,
       "the package is older than its publisher permits", older},
  };
}

// A stick's errors come before those of the disk.
std::vector<Rule> RulesForDisks(const std::string& command) {
  using enum FailureReason;
  const auto anyone = Speaker::kAnyone;
  const std::string again = "un: sudo packctl " + command;
  const std::string room = "Make room, then r" + again;
  const std::string disk = "Check the disk, then r" + again;
  return {
      {kFileUnusable, anyone, "cannot read the package file: ", Words::kOwnAndRest, "the package file cannot be read",
       "Check the file and the stick that it is on, then r" + again},
      {kNoSpace, anyone, WordsOf(std::errc::no_space_on_device), Words::kOwn, "the disk is full", room},
      {kNoSpace, anyone, "bytes that are free", Words::kOwn, "the disk is full", room},
      {kDiskError, anyone, WordsOf(std::errc::io_error), Words::kOwn, "the disk reports an error", disk},
      {kDiskError, anyone, WordsOf(std::errc::read_only_file_system), Words::kOwn, "the disk is read-only", disk},
      {kDiskError, anyone, "Open download file ", Words::kOwn, "the disk does not take the package", disk},
  };
}

// The first whose sign is found counts: a full disk, say, is the reason for much else, and a package that a program
// refuses also counts as one that does not match its checksum.
std::vector<Rule> RulesFor(const std::string& command) {
  using enum FailureReason;
  const auto anyone = Speaker::kAnyone;
  const auto programs = Speaker::kPrograms;
  const std::string malformed = "the update server's reply is malformed";
  const std::string damaged = "the package is damaged";
  const std::string unhealthy = "the pack failed its health check";
  const std::string newer = "A newer version is installed when it is on offer.";
  return {
      {kNotSigned, anyone, ": not signed", Words::kOwn, "the package is not signed",
       "Get a signed package from its publisher."},
      {kNoNetworkModule, anyone, "the network module", Words::kOwn,
       "the updater's network module is missing or does not fit", "Install the updater's packages again."},
      {kServerUnreachable, anyone, "Failed to send request with error: ", Words::kOwnAndRest,
       "cannot reach the update server", "Check the network, then run: sudo packctl doctor"},
      {kServerRefused, anyone, "Failed to send request with status: ", Words::kOwnAndRest,
       "the update server refuses the request", kDoctor},
      {kDownloadFailed, anyone, "Failed to download pack: ", Words::kOwnAndRest, "the package cannot be downloaded",
       kDoctor},
      {kDownloadFailed, anyone, " from link: ", Words::kOwnAndRest, "the package cannot be downloaded", kDoctor},
      {kKeyringUnusable, programs, path::kKeyring, Words::kOwnAndCause, "the keyring cannot be used", kDoctor},
      {kBadSignature, programs, "MANIFEST", Words::kOwnAndCause, "the package's signature is not valid", kDoctor},
      {kBadPackage, programs, "orba-archive: ", Words::kOwnAndCause, damaged, kDoctor},
      {kBadPackage, programs, "orba-tar: ", Words::kOwnAndCause, damaged, kDoctor},
      {kUnhealthy, programs, "check-health: ", Words::kOwnAndRest, unhealthy, newer},
      {kUnhealthy, anyone, "The pack is not healthy: ", Words::kOwnAndRest, unhealthy, newer},
      {kOlderVersion, anyone, "the version on offer, ", Words::kLine, "", OlderRemedy(command)},
      {kRejected, anyone, " was rejected on this appliance", Words::kLine, "", newer},
      {kInstallFailed, programs, "orba-", Words::kLine, "", kDoctor},
      {kChecksumMismatch, anyone, "Failed to verify checksum", Words::kOwn,
       "the package is not the one that the server announced", "Run: sudo packctl " + command},
      {kBadReply, anyone, "Failed to parse response", Words::kOwn, "the update server's reply is not JSON", kDoctor},
      {kNoPackOffered, anyone, "Get " + updater::PackName(false) + " info failed", Words::kOwn,
       "the server offers no HEVC pack", kDoctor},
      {kNoPackOffered, anyone, "Get " + updater::PackName(true) + " info failed", Words::kOwn,
       "the server offers no HEVC pack with AAC", kDoctor},
      {kBadReply, anyone, "the update server's reply offers no pack", Words::kLine, "", kDoctor},
      {kRequirementsUnreadable, anyone, path::kCodecRequirementsPath, Words::kOwn,
       std::string(path::kCodecRequirementsPath) + " cannot be read", kDoctor},
      {kBadReply, anyone, "Json::Value", Words::kOwn, malformed, kDoctor},
      {kBadReply, anyone, "is not convertible to", Words::kOwn, malformed, kDoctor},
      {kBadReply, anyone, "Exceeded stackLimit", Words::kOwn, malformed, kDoctor},
      {kNotConfigured, anyone, "Ignored ", Words::kLine, "", kDoctor},
      {kNotConfigured, anyone, "Bad request: ", Words::kLine, "", kDoctor},
      {kRecordUnreadable, anyone, "the recorded status cannot be read", Words::kOwn,
       "the recorded status cannot be read", kRecover},
      {kPermissionDenied, anyone, WordsOf(std::errc::permission_denied), Words::kLine, "",
       "Run it as root: sudo packctl " + command},
  };
}

const std::string* FindLine(const Lines& lines, std::string_view sign) {
  const auto found = std::find_if(lines.begin(), lines.end(),
                                  [&](const std::string& line) { return line.find(sign) != std::string::npos; });
  return found == lines.end() ? nullptr : &*found;
}

const std::string* FindLine(const Said& said, const Rule& rule) {
  const std::string* line = FindLine(said.programs, rule.sign);
  if (line == nullptr && rule.speaker == Speaker::kAnyone) {
    line = FindLine(said.log, rule.sign);
    line = line == nullptr ? FindLine(said.problems, rule.sign) : line;
  }
  return line;
}

// What ended an operation, without the operation's name, since the command is named already; empty for other lines.
std::string EndOfOperation(const std::string& line) {
  for (const std::string_view operation :
       {"Check new pack failed: ", "Download and install failed: ", "Download failed: ", "Install failed: "}) {
    if (line.starts_with(operation)) {
      return line.substr(operation.size());
    }
  }
  return "";
}

// "orba-archive: FILE: CAUSE" without what stands in front of the cause.
std::string CauseIn(const std::string& line) {
  constexpr std::string_view kEnd = ": ";
  const std::size_t file = line.find(kEnd);
  const std::size_t cause = file == std::string::npos ? file : line.find(kEnd, file + kEnd.size());
  return cause == std::string::npos ? line : line.substr(cause + kEnd.size());
}

std::string MessageOf(const Rule& rule, const std::string& line) {
  switch (rule.words) {
    case Words::kOwn:
      return rule.message;
    case Words::kOwnAndRest:
      return rule.message + " (" + ConnectionWords(line.substr(line.find(rule.sign) + rule.sign.size())) + ")";
    case Words::kOwnAndCause:
      return rule.message + " (" + CauseIn(line) + ")";
    case Words::kLine:
      break;
  }
  const std::string end = EndOfOperation(line);
  return end.empty() ? line : end;
}

// A line that tells what ended the operation, or the first: what came first is nearest to the cause.
std::string UnknownCause(const Said& said) {
  for (const std::string& line : said.log) {
    if (std::string end = EndOfOperation(line); !end.empty()) {
      return end;
    }
  }
  const Lines& lines = said.log.empty() ? said.problems : said.log;
  return lines.empty() ? "the reason is not known" : lines.front();
}

Failure Explain(const std::string& command, const Said& said) {
  for (const std::vector<Rule>& rules :
       {RulesForSettings(), RulesForSignedPackages(command), RulesForDisks(command), RulesFor(command)}) {
    for (const Rule& rule : rules) {
      if (const std::string* line = FindLine(said, rule)) {
        return MakeFailure(rule.reason, MessageOf(rule, *line), rule.remedy);
      }
    }
  }
  if (command.starts_with("account ")) {
    return MakeFailure(FailureReason::kAccountFailed, UnknownCause(said),
                       "Mend that, then run: sudo packctl " + command);
  }
  const bool installed = FindLine(said.log, "Failed to install") != nullptr ||
                         FindLine(said.log, "DoInstall failed") != nullptr ||
                         FindLine(said.log, "did not get into place") != nullptr;
  return MakeFailure(installed ? FailureReason::kInstallFailed : FailureReason::kUnexpected, UnknownCause(said),
                     kDoctor);
}

// Whether the reason makes a sentence without the command.
bool SaysItAll(const Failure& failure) {
  using enum FailureReason;
  constexpr std::array kWhole = {kServerUnreachable, kNoPackOffered, kPermissionDenied,
                                 kNotPermitted,      kInterrupted,   kBusy,
                                 kNotConfirmed,      kCancelled,     kHeld,
                                 kOutsideWindow,     kInUse,         kNotInRollout,
                                 kWaitsForPerson,    kPackageRefused};
  return std::ranges::any_of(kWhole, [&](FailureReason reason) { return failure.code == CodeOf(reason); });
}

// "update to 1.1"
std::string NounOf(const Work& work) {
  const std::string version = work.version.empty() ? "" : " " + work.version;
  if (work.command == "update") {
    return version.empty() ? work.command : work.command + " to" + version;
  }
  const std::string noun = work.command == "remove" ? "removal" : work.command == "recover" ? "recovery" : work.command;
  return version.empty() ? noun : noun + " of" + version;
}

}  // namespace

Failure ExplainFailure(const std::string& command, const Said& said) {
  Failure failure = Explain(command, said);
  if (FindLine(said.problems, "packctl recover") != nullptr) {
    failure.remedy = kRecover;
  }
  return failure;
}

std::optional<Failure> NeedsRoot(const std::string& command) {
  struct Activity {
    const char* command;
    const char* words;
  };
  constexpr std::array kActivities = {
      Activity{"status", "reading the status"}, Activity{"codecs", "reading the codecs"},
      Activity{"check", "checking for a pack"}, Activity{"download", "downloading a pack"},
      Activity{"install", "installing a pack"}, Activity{"update", "updating"},
      Activity{"remove", "removing the pack"},  Activity{"rollback", "going back"},
      Activity{"recover", "recovering"},        Activity{"plugins", "asking plugins"}};
  const auto* const activity =
      std::ranges::find_if(kActivities, [&](const Activity& known) { return known.command == command; });
  if (activity == kActivities.end()) {
    return std::nullopt;
  }
  const bool is_query = command == "status" || command == "codecs";
  return MakeFailure(FailureReason::kPermissionDenied,
                     std::string(activity->words) + " needs root" + (is_query ? " or the group " ORBAMIRA_GROUP : ""),
                     "Try: sudo packctl " + command);
}

std::string FailureSentence(const Work& work, const Failure& failure,
                            const std::optional<std::string>& installed_version) {
  const std::string head = SaysItAll(failure) ? failure.message : NounOf(work) + " failed: " + failure.message;
  std::string text = Capitalized(head) + ".";
  if (failure.code != CodeOf(FailureReason::kBusy)) {
    text.append(" ").append(StaysSentence(installed_version));
  }
  if (!failure.remedy.empty()) {
    text.append(" ").append(failure.remedy);
  }
  return text;
}

std::string FailureSentence(const Failure& failure) {
  return Capitalized(failure.message) + "." + (failure.remedy.empty() ? "" : " " + failure.remedy);
}

}  // namespace orbamira::packctl
