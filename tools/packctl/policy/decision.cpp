#include "tools/packctl/policy/decision.h"

#include <algorithm>

namespace orbamira::packctl {
namespace {

using updater::UpdatePolicy;

std::time_t After(std::time_t time, std::chrono::days days) {
  return time + static_cast<std::time_t>(std::chrono::seconds(days).count());
}

bool HurriesForSecurity(const Situation& situation) {
  return situation.offer.security && situation.settings.installs_security;
}

UpdatePolicy PolicyFor(const Situation& situation) {
  return HurriesForSecurity(situation) ? updater::kPolicyAutoDownloadAutoInstall : situation.settings.policy;
}

// The end of all waiting that a security release does.
std::optional<std::time_t> SecurityDeadline(const Situation& situation) {
  return HurriesForSecurity(situation)
             ? std::optional(After(situation.first_seen, situation.settings.most_security_wait))
             : std::nullopt;
}

// Not for ever: what was wrong may have been the clock.
std::optional<Wait> WhyRefused(const Situation& situation) {
  constexpr std::chrono::days kMost{30};
  const std::optional<RefusedPackage>& refusal = situation.refusal;
  if (!refusal || situation.now < refusal->time || situation.now >= After(refusal->time, kMost)) {
    return std::nullopt;
  }
  return Wait{
      .reason = FailureReason::kPackageRefused, .until = After(refusal->time, kMost), .because = refusal->message};
}

std::optional<Wait> WhyHeld(const Situation& situation, std::optional<std::time_t> deadline) {
  if (!situation.hold || situation.now >= situation.hold->until.value_or(situation.now + 1)) {
    return std::nullopt;
  }
  Wait wait{.reason = FailureReason::kHeld, .until = situation.hold->until};
  if (deadline) {
    wait.until = std::min(wait.until.value_or(*deadline), *deadline);
  }
  return wait;
}

// For a good moment, but not for ever.
std::optional<Wait> WhyNotNow(const Situation& situation, std::time_t deadline) {
  const PolicySettings& settings = situation.settings;
  if (situation.now >= deadline) {
    return std::nullopt;
  }
  if (!IsInside(settings.windows, situation.now)) {
    const std::time_t next = NextBegin(settings.windows, situation.now).value_or(deadline);
    return Wait{.reason = FailureReason::kOutsideWindow, .until = std::min(next, deadline), .may_download = true};
  }
  if (situation.is_in_use && situation.is_in_use()) {
    return Wait{.reason = FailureReason::kInUse, .until = deadline, .may_download = true};
  }
  return std::nullopt;
}

}  // namespace

std::optional<Wait> WhyWait(const Situation& situation) {
  if (std::optional<Wait> wait = WhyRefused(situation)) {
    return wait;
  }
  const std::optional<std::time_t> security = SecurityDeadline(situation);
  if (security && situation.now >= *security) {
    return std::nullopt;
  }
  if (std::optional<Wait> wait = WhyHeld(situation, security)) {
    return wait;
  }
  const UpdatePolicy policy = PolicyFor(situation);
  if (policy != updater::kPolicyAutoDownloadAutoInstall) {
    return Wait{.reason = FailureReason::kWaitsForPerson,
                .may_download = policy == updater::kPolicyAutoDownloadManualInstall};
  }
  const std::time_t usual = After(situation.first_seen, situation.settings.most_wait);
  return WhyNotNow(situation, std::min(usual, security.value_or(usual)));
}

}  // namespace orbamira::packctl
