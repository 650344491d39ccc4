#include "tools/packctl/view/wait_words.h"

#include "tools/packctl/view/local_time.h"

namespace orbamira::packctl {
namespace {

std::string ReasonWords(FailureReason reason) {
  if (reason == FailureReason::kHeld) {
    return "updates are held";
  }
  if (reason == FailureReason::kOutsideWindow) {
    return "it is installed in its window of time";
  }
  if (reason == FailureReason::kInUse) {
    return "a program uses the installed pack";
  }
  return reason == FailureReason::kNotInRollout ? "the maker does not offer it to this appliance yet"
                                                : "the update policy leaves it to you";
}

}  // namespace

Failure ExplainWait(const std::string& version, const Wait& wait) {
  const std::string until = wait.until ? ", until " + LocalTime(*wait.until) + " at the latest" : "";
  return MakeFailure(wait.reason, version + " waits: " + ReasonWords(wait.reason) + until,
                     wait.reason == FailureReason::kHeld ? "Run: sudo packctl unhold" : "Run: sudo packctl update");
}

}  // namespace orbamira::packctl
