#include "tools/packctl/policy/offer.h"

#include "platform/constants.h"
#include "platform/json/json_object.h"

namespace orbamira::packctl {

Offer ReadOffer(const Json::Value& info) {
  if (!info.isObject()) {
    return {};
  }
  const Json::Value& security = info["security"];
  const Json::Value& rollout = info["rollout"];
  return {.version = TextOf(info[param::kVersion]),
          .security = security.isBool() && security.asBool(),
          .rollout = rollout.isNumeric() ? std::optional(rollout.asDouble()) : std::nullopt,
          .channel = TextOf(info["channel"])};
}

}  // namespace orbamira::packctl
