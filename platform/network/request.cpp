#include "platform/network/request.h"

#include <stdexcept>

#include "platform/network/network.h"

namespace orbamira {
namespace {

// Tells a module that cannot be loaded apart from what the module throws.
const Network* TryNetwork(std::string& error) {
  try {
    return &LoadNetwork();
  } catch (const std::runtime_error& failure) {
    error = failure.what();
    return nullptr;
  }
}

}  // namespace

std::string NetworkLibraries() {
  std::string error;
  const Network* const network = TryNetwork(error);
  return network != nullptr ? network->Libraries() : error;
}

NetworkReply AskNetwork(const NetworkRequest& request) {
  NetworkReply reply{.failed = true};
  const Network* const network = TryNetwork(reply.error);
  return network != nullptr ? network->Ask(request) : reply;
}

}  // namespace orbamira
