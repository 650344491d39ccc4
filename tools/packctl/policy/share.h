#pragma once

#include <cstdint>
#include <string>

/// Which appliances a staged release is for. docs/protocol.md has the same for who writes servers.
namespace orbamira::packctl {

/// The number that decides: MurmurHash2 (32 bits, seed 0) of "UNIQUE:VERSION", with the unique value percent-encoded as
/// the request has it. nginx computes the same for split_clients "$arg_unique:VERSION", so the numbers never change.
std::uint32_t ShareNumber(const std::string& unique, const std::string& version);

/// Whether the appliance is among so many percent of them, 0 to 100. One that is stays so when the percentage grows.
bool IsInShare(const std::string& unique, const std::string& version, double percent);

}  // namespace orbamira::packctl
