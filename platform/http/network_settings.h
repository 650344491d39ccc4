#pragma once

#include <cpr/cpr.h>

#include <cstdint>
#include <string>

// The settings of how the updater reaches the network. Not installed.
namespace orbamira {

/// What the settings say. Without any, transfers are as libcurl makes them.
struct NetworkSettings {
  std::string proxy = {};          ///< its address; empty for the one that the environment names
  std::string ca_file = {};        ///< authorities to believe instead of the system's (PEM); empty for the system's
  std::int64_t download_rate = 0;  ///< bytes per second that a download takes at most; 0 for no limit
};

/// Reads `proxy`, `ca_file` and `download_rate` from the machine's settings, or else from the maker's. Throws
/// std::runtime_error for a value that cannot be used: a request past the proxy, or one that believes other
/// authorities, would be worse than none. The message never shows a proxy, since there may be a password in it.
[[nodiscard]] NetworkSettings ReadNetworkSettings();

/// Makes the session use the proxy, whatever the environment says, and believe the authorities.
void UseNetworkSettings(cpr::Session& session, const NetworkSettings& settings);

}  // namespace orbamira
