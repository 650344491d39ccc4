#pragma once

#include <chrono>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/packctl/policy/install_windows.h"
#include "tools/packctl/policy/offer.h"
#include "tools/packctl/record/failure.h"
#include "updater/enumerations.h"

/// When a pack on offer is installed without anybody having asked for it.
namespace orbamira::packctl {

/// What the settings say about it.
struct PolicySettings {
  updater::UpdatePolicy policy = updater::kPolicyManualDownloadManualInstall;
  std::vector<TimeWindow> windows = {};  ///< when an install may begin; empty: at any time
  std::chrono::days most_wait{7};        ///< so long an install waits for a window, and for programs that use the pack
  bool installs_security = true;         ///< a security release is installed by itself, whatever the policy
  std::chrono::days most_security_wait{3};  ///< so long at most such a release waits for anything
};

/// The owner's word that nothing is installed.
struct Hold {
  std::optional<std::time_t> until = {};  ///< the end of it; empty: until he takes it back

  friend bool operator==(const Hold&, const Hold&) = default;
};

/// What is judged, and by what.
struct Situation {
  Offer offer = {};
  std::time_t first_seen = 0;  ///< when a check first found the offer
  PolicySettings settings = {};
  std::optional<RefusedPackage> refusal = {};  ///< of the package on offer, by what packages are judged by now
  std::optional<Hold> hold = {};
  std::time_t now = 0;
  std::function<bool()> is_in_use = {};  ///< whether a program uses the installed pack; asked only where it matters
};

/// Why nothing is installed yet.
struct Wait {
  FailureReason reason = FailureReason::kWaitsForPerson;  ///< one of those of waiting
  std::optional<std::time_t> until = {};  ///< when this reason ends at the latest; empty when no clock ends it
  bool may_download = false;              ///< the package is fetched meanwhile
  std::string because = {};               ///< why the package was refused; empty for other reasons

  friend bool operator==(const Wait&, const Wait&) = default;
};

/// Judges: empty when the offer is to be installed now. Depends on nothing but its argument and the time zone.
std::optional<Wait> WhyWait(const Situation& situation);

}  // namespace orbamira::packctl
