#include "platform/network/module.h"

#include <string_view>

// The network module's one function.
const orbamira::Network* orbamira_network(const char* version) {
  return std::string_view(version) == ORBAMIRA_VERSION ? &orbamira::LoadNetwork() : nullptr;
}
