#include "tools/packctl/commands/change_outcome.h"

#include <exception>

#include "platform/constants.h"
#include "platform/printable.h"
#include "tools/packctl/cli/cancel.h"
#include "tools/packctl/record/answered_check.h"
#include "tools/packctl/record/installed_pack.h"
#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/result_words.h"
#include "tools/packctl/view/status_words.h"
#include "updater/recovery.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kRecoverHint = "run \"packctl recover\"";

std::optional<updater::PackStatus> RecordedStatus() {
  try {
    return ReadStatus().status;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

bool MayNeedRecovery(const std::optional<updater::PackStatus>& status) { return !status || IsUnderWay(*status); }

std::string StatusSentence(const std::optional<updater::PackStatus>& status) {
  const std::string sentence =
      status ? std::string("the recorded status is ") + StatusText(*status) : "the recorded status cannot be read";
  return MayNeedRecovery(status) ? sentence + "; " + kRecoverHint : sentence;
}

// A process that was cancelled left it to this one to put things in order.
Outcome CancelledChange(const Context& context) {
  if (context.console.IsTerminal() && !context.options.json) {
    context.console.Print("\n");  // the line of the progress
  }
  AwaitPrograms();
  updater::Recover(*context.lock);
  Outcome outcome = EndOfChange(kExitCancelled, "cancelled");
  outcome.change->happened = true;
  outcome.failure = MakeFailure(FailureReason::kCancelled, "cancelled", "");
  return outcome;
}

}  // namespace

Outcome EndOfChange(ExitStatus exit, const char* result) {
  return {.exit = exit, .result = result, .change = Change{.status = RecordedStatus()}};
}

Outcome FailedChange(const char* noun) {
  Outcome outcome = EndOfChange(kExitFailed, "failed");
  outcome.problems = {std::string("the ") + noun + " failed; " + StatusSentence(outcome.change->status)};
  return outcome;
}

Outcome RecoveredChange(const Context& context, const char* noun) {
  updater::Recover(*context.lock);
  return FailedChange(noun);
}

Outcome RejectedOffer(const std::string& version, const OtherReleases& others) {
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  Outcome outcome = EndOfChange(kExitNothingToDo, "rejected");
  NoteAnswer(outcome, version, false, others);
  outcome.members["version"] = version;
  outcome.members["installed_version"] = pack ? Json::Value(pack->identity.version) : Json::Value();
  outcome.text = Printable(version) + " is on offer, but it was rejected on this appliance. " +
                 StaysSentence(pack ? std::optional(Printable(pack->identity.version)) : std::nullopt) + "\n";
  return outcome;
}

void NoteAnswer(Outcome& outcome, const std::string& version, bool is_news, const OtherReleases& others) {
  const std::optional<AnsweredCheck> before = ReadAnsweredCheck();
  NoteAnsweredCheck(version, is_news, others);
  if (!others.withdrawn.empty() && (!before || before->others.withdrawn != others.withdrawn)) {
    outcome.problems.push_back("the maker has withdrawn " + Printable(others.withdrawn));
    outcome.change->happened = true;
  }
}

void GiveUpDownload(const Context& context, const updater::IPackStatusHelper& status) {
  if (ReadInstalledPack()) {
    status.SetAsUpToDate();
  } else {
    status.SetAsDownloadInstallFailed();
  }
  updater::Recover(*context.lock);
}

Outcome RunCancellable(Context& context, Outcome (*run)(Context&)) {
  if (context.options.cancelled) {
    return CancelledChange(context);
  }
  const CancelOnSignals cancel(context.console);
  return run(context);
}

Outcome NotConfirmed(const std::string& command, const std::string& why) {
  Outcome outcome = EndOfChange(kExitNotPermitted, "not_confirmed");
  outcome.failure = MakeFailure(FailureReason::kNotConfirmed, why, "Run: sudo packctl " + command + " --yes");
  return outcome;
}

Outcome DeclinedChange() {
  Outcome outcome = EndOfChange(kExitCancelled, "cancelled");
  outcome.failure = MakeFailure(FailureReason::kCancelled, "cancelled", "");
  return outcome;
}

// Nobody else holds the update lock, so a status of work under way was left behind.
Outcome ForbiddenChange(const char* verb, updater::PackStatus status) {
  const std::string remedy = std::string("Run: sudo packctl ") + NextCommand(status);
  const std::string refusal = std::string("cannot ") + verb + " now: " + StatusMeaning(status);
  return {.exit = kExitNotPermitted,
          .result = "not_permitted",
          .change = Change{.status = status},
          .problems = {StatusSentence(status)},
          .failure = IsUnderWay(status) ? MakeFailure(FailureReason::kInterrupted, kInterruptedWords, remedy)
                                        : MakeFailure(FailureReason::kNotPermitted, refusal, remedy)};
}

void BlameRequirements(const updater::IPackManager& manager, Outcome& outcome) {
  try {
    static_cast<void>(manager.IsAacNeeded());
  } catch (const std::exception& error) {
    outcome.problems.push_back(std::string(path::kCodecRequirementsPath) + ": " + error.what());
  }
}

std::vector<std::string> DoubtsAbout(const std::optional<updater::PackStatus>& status) {
  if (!status) {
    return {StatusSentence(status)};
  }
  return IsUnderWay(*status) ? std::vector{std::string(kInterruptedWords) + "; " + kRecoverHint}
                             : std::vector<std::string>();
}

}  // namespace orbamira::packctl
