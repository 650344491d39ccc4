#pragma once

#include <json/value.h>

#include <optional>
#include <string>

/// What the update server's reply says about when its offer is to be taken.
namespace orbamira::packctl {

/// The members of an offer that only packctl reads. Each may be missing: then the offer is one for everybody, with no
/// haste. A member of another type counts as missing.
struct Offer {
  std::string version = {};
  bool security = false;               ///< "security": it closes a hole, so it must not wait for long
  std::optional<double> rollout = {};  ///< "rollout": percent of the appliances that it is for; empty: for all
  std::string channel = {};            ///< "channel": who it is for; empty: everybody

  friend bool operator==(const Offer&, const Offer&) = default;
};

/// Reads an offer, the member of the reply that is named after a pack.
Offer ReadOffer(const Json::Value& info);

}  // namespace orbamira::packctl
