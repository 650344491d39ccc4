#include "tools/packctl/policy/offer.h"

#include "platform/constants.h"
#include "platform/json/json_object.h"

namespace orbamira::packctl {

Offer ReadOffer(const Json::Value& info) {
  if (!info.isObject()) {
    return {};
  }
  const Json::Value& security = info["security"];
  return {.version = TextOf(info[param::kVersion]), .security = security.isBool() && security.asBool()};
}

}  // namespace orbamira::packctl
