#pragma once

#include <json/value.h>

#include <optional>
#include <set>
#include <string>

#include "tools/packctl/record/answered_check.h"

/// Which of a pack's releases this appliance is offered, where the reply has more than one.
namespace orbamira::packctl {

/// Who is offered releases.
struct Audience {
  std::string unique = {};   ///< the appliance's unique value
  std::string channel = {};  ///< of the settings; empty: none
  bool takes_all = false;    ///< also releases whose share it is not in: somebody asked for them
};

/// The name of the setting that puts an appliance into a channel.
inline constexpr const char* kChannel = "channel";

/// This appliance. Reads two files.
Audience ReadAudience();

/// What comes of it.
struct ReleaseChoice {
  Json::Value offer = {};                      ///< the newest release that the appliance is offered
  std::optional<StagedRelease> left_out = {};  ///< the newest one, if it is newer than that and for a share of others
};

/// Whether the reply names releases of the pack beside the one that everyone is offered. Without them that is the
/// offer.
bool HasOtherReleases(const Json::Value& pack);

/// Chooses between the pack's own release, which everyone is offered, and those in "staged". An entry that names no
/// version, link or checksum, or whose rollout or channel is of a wrong type, is passed over.
ReleaseChoice ChooseRelease(const Json::Value& pack, const Audience& audience);

/// The versions of which the reply says that they were taken back.
std::set<std::string> WithdrawnVersions(const Json::Value& pack);

}  // namespace orbamira::packctl
