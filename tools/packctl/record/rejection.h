#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "updater/health.h"

/// How packctl tells of the versions that were rejected.
namespace orbamira::packctl {

/// The reason of a version that somebody went back from by "packctl rollback".
inline constexpr const char* kRolledBackReason = "it was rolled back by hand";

/// Why it was rejected, for programs: "unhealthy", "rolled_back", or "other" for a reason of another host's.
std::string RejectionCode(const updater::RejectedVersion& rejected);

/// As "packctl --json status" prints them, in the same order.
Json::Value RejectedJson(const std::vector<updater::RejectedVersion>& versions);

}  // namespace orbamira::packctl
