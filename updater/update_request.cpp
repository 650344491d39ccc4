#include "updater/update_request.h"

#include <json/reader.h>

#include "platform/constants.h"
#include "updater/kos_helper.h"
#include "updater/pack_manager.h"

namespace orbamira::updater {

UpdateRequest MakeUpdateRequest(const IKOSHelper& facts) {
  return {facts.GetPackUpdateServerUrl(), facts.GetVersionFromPath(kPackageInfoPath), facts.GetVersion(),
          facts.GetUnique()};
}

bool IsComplete(const UpdateRequest& request) {
  return !request.address.empty() && !request.package_version.empty() && !request.system_version.empty() &&
         !request.unique.empty();
}

std::vector<QueryParameter> QueryOf(const UpdateRequest& request) {
  return {{"identify", kPackageId},
          {"unique", request.unique},
          {"version", request.package_version},
          {"kos_version", request.system_version}};
}

PackChoice ChoosePack(const IPackManager& manager) {
  if (manager.IsAacNeeded()) {
    return {true, PackReason::kAacRequested};
  }
  if (manager.HasAacCurrently()) {
    return {true, PackReason::kAacInstalled};
  }
  return {};
}

std::string PackName(bool with_aac) { return with_aac ? kHevcAacPack : kHevcPack; }

std::optional<bool> AsksForCodec(const std::string& requirements, const std::string& codec) {
  Json::Value root;
  if (!Json::Reader().parse(requirements, root)) {
    return std::nullopt;
  }
  // Not empty(), which is false for plain values too.
  return root.get(codec, Json::Value()).size() != 0;  // NOLINT(readability-container-size-empty)
}

}  // namespace orbamira::updater
