#pragma once

#include <json/value.h>

#include <ctime>
#include <string>

/// What the update server's reply says about when its offer is to be taken.
namespace orbamira::packctl {

/// An offer, by what decides when it is taken. A member that is missing or of another type leaves its field as it is
/// here.
struct Offer {
  std::string version = {};
  std::string link = {};
  std::string checksum = {};
  bool security = false;  ///< "security": it closes a hole, so it must not wait for long

  friend bool operator==(const Offer&, const Offer&) = default;
};

/// Whether both are of the same package.
bool HaveSamePackage(const Offer& left, const Offer& right);

/// Why the package of an offer was not accepted.
struct RefusedPackage {
  std::string message = {};  ///< a clause
  std::time_t time = 0;      ///< when it was refused, in seconds since the epoch
  std::string basis = {};    ///< the JudgementBasis() of then

  friend bool operator==(const RefusedPackage&, const RefusedPackage&) = default;
};

/// What packages are judged by on this machine: a text that differs once the keyring, a file of settings or the updater
/// is another one.
std::string JudgementBasis();

/// Reads an offer, the member of the reply that is named after a pack.
Offer ReadOffer(const Json::Value& info);

}  // namespace orbamira::packctl
