#include "tools/packctl/host/withdrawal.h"

#include <chrono>
#include <optional>

#include "platform/json/json_object.h"
#include "platform/network/request.h"
#include "tools/packctl/policy/release_choice.h"
#include "updater/json_text.h"
#include "updater/kos_helper.h"
#include "updater/update_request.h"

namespace orbamira::packctl {

bool IsWithdrawnNow(const std::string& name, const std::string& version) {
  const updater::UpdateRequest request = updater::MakeUpdateRequest(*updater::KOSHelper::Create());
  if (!IsComplete(request)) {
    return false;
  }
  NetworkRequest get{.url = request.address,
                     .connect_limit = std::chrono::seconds(5),
                     .limit = std::chrono::seconds(15),
                     .most_bytes = updater::kJsonTextLimit};
  for (const updater::QueryParameter& parameter : updater::QueryOf(request)) {
    get.query.emplace_back(parameter.key, parameter.value);
  }
  constexpr long kOk = 200;
  const NetworkReply reply = AskNetwork(get);
  const std::optional<Json::Value> root = reply.status == kOk ? ParseJsonObject(reply.body) : std::nullopt;
  return root && WithdrawnVersions((*root)[name]).contains(version);
}

}  // namespace orbamira::packctl
