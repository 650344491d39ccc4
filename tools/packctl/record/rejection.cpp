#include "tools/packctl/record/rejection.h"

#include "tools/packctl/record/failure.h"

namespace orbamira::packctl {

std::string RejectionCode(const updater::RejectedVersion& rejected) {
  if (rejected.reason == updater::kUnhealthyReason) {
    return CodeOf(FailureReason::kUnhealthy);
  }
  return rejected.reason == kRolledBackReason ? "rolled_back" : "other";
}

Json::Value RejectedJson(const std::vector<updater::RejectedVersion>& versions) {
  Json::Value json = Json::arrayValue;
  for (const updater::RejectedVersion& rejected : versions) {
    Json::Value& entry = json.append(Json::objectValue);
    entry["version"] = rejected.version;
    entry["code"] = RejectionCode(rejected);
    entry["reason"] = rejected.reason;
    entry["time"] = Json::Int64{rejected.time};
  }
  return json;
}

}  // namespace orbamira::packctl
