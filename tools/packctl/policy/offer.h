#pragma once

#include <json/value.h>

#include <string>

/// What the update server's reply says about when its offer is to be taken.
namespace orbamira::packctl {

/// An offer, by what decides when it is taken. A member that is missing or of another type leaves its field as it is
/// here.
struct Offer {
  std::string version = {};
  bool security = false;  ///< "security": it closes a hole, so it must not wait for long

  friend bool operator==(const Offer&, const Offer&) = default;
};

/// Reads an offer, the member of the reply that is named after a pack.
Offer ReadOffer(const Json::Value& info);

}  // namespace orbamira::packctl
