#include "tools/packctl/view/wait_words.h"

#include "tools/packctl/view/local_time.h"

namespace orbamira::packctl {
namespace {

std::string ReasonWords(const Wait& wait) {
  const FailureReason reason = wait.reason;
  if (reason == FailureReason::kPackageRefused) {
    return "its package was refused, and is fetched again once the maker changes the offer (" + wait.because + ")";
  }
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

Json::Value TimeOrNull(const std::optional<std::time_t>& time) {
  return time ? Json::Value(Json::Int64{*time}) : Json::Value();
}

}  // namespace

Failure ExplainWait(const std::string& version, const Wait& wait) {
  return MakeFailure(wait.reason, version + " waits: " + WaitWords(wait),
                     wait.reason == FailureReason::kHeld             ? "Run: sudo packctl unhold"
                     : wait.reason == FailureReason::kPackageRefused ? "To try again, run: sudo packctl update"
                                                                     : "Run: sudo packctl update");
}

std::string WaitWords(const Wait& wait) {
  return ReasonWords(wait) + (wait.until ? ", until " + LocalTime(*wait.until) + " at the latest" : "");
}

std::string HoldWords(const Hold& hold) {
  return "updates are held" + (hold.until ? " until " + LocalTime(*hold.until) : "");
}

Json::Value WaitJson(const std::optional<Wait>& wait) {
  Json::Value json;
  if (wait) {
    json["code"] = CodeOf(wait->reason);
    json["until"] = TimeOrNull(wait->until);
  }
  return json;
}

Json::Value HoldJson(const std::optional<Hold>& hold) {
  Json::Value json;
  if (hold) {
    json["until"] = TimeOrNull(hold->until);
  }
  return json;
}

}  // namespace orbamira::packctl
