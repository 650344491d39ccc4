#include "tools/packctl/commands/change_outcome.h"

#include <exception>

#include "tools/packctl/record/recorded_status.h"
#include "tools/packctl/view/status_words.h"
#include "updater/recovery.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kRecoverHint = "if no program is at work on it, run \"packctl recover\"";

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

Outcome ForbiddenChange(const char* noun, updater::PackStatus status) {
  const std::string problem = std::string("the ") + noun + " is not permitted while the recorded status is " +
                              StatusText(status) + " (" + StatusMeaning(status) + ")";
  const std::string remedy = IsUnderWay(status) ? kRecoverHint : "permitted now: " + PermittedCommands(status);
  const FailureReason reason = IsUnderWay(status) ? FailureReason::kInterrupted : FailureReason::kNotPermitted;
  return {.exit = kExitNotPermitted,
          .result = "not_permitted",
          .change = Change{.status = status},
          .problems = {problem, remedy},
          .failure = MakeFailure(reason, problem, remedy)};
}

std::vector<std::string> DoubtsAbout(const std::optional<updater::PackStatus>& status) {
  return MayNeedRecovery(status) ? std::vector{StatusSentence(status)} : std::vector<std::string>();
}

}  // namespace orbamira::packctl
