#pragma once

#include <string>

/// What packctl asks about a pack that is downloaded already.
namespace orbamira::packctl {

/// Whether the update server says now that the maker has withdrawn the version of the pack with this name. False too
/// when the server says nothing within seconds: a downloaded pack is installed without a network.
bool IsWithdrawnNow(const std::string& name, const std::string& version);

}  // namespace orbamira::packctl
