#pragma once

#include <cpr/cpr.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string_view>

#include "platform/http/network_settings.h"

namespace orbamira {

/// How long a transfer waits for the server, and how fast it is.
struct TransferLimits {
  std::chrono::milliseconds connect{std::chrono::seconds(30)};
  /// A transfer with less than one byte per second over this time has stalled.
  std::chrono::milliseconds stall{std::chrono::seconds(30)};
  std::int64_t rate = 0;  ///< the most bytes per second that are read; 0 for no limit
};

/// Takes the next bytes of a body. Returning false ends the transfer, and so does an exception.
using BodyCallback = std::function<bool(std::string_view)>;

/// Prepares a session for Fetch(); once for each session. Bodies arrive as the server stores them, not compressed, and
/// through the proxy of the settings.
void SetUpForDownloads(cpr::Session& session, const NetworkSettings& settings);

/// GETs the session's URL and passes the body to `take` piece by piece, on this thread and whatever the status. Blocks
/// until the transfer ends. If it failed or `take` ended it, `error` of the response has the reason, and `status_code`
/// is the last status received. An exception of `take` leaves this function; the session can be used again.
[[nodiscard]] cpr::Response Fetch(cpr::Session& session, const TransferLimits& limits, const BodyCallback& take);

}  // namespace orbamira
