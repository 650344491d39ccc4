#pragma once

#include <cpr/cpr.h>

#include <chrono>
#include <functional>
#include <string_view>

namespace orbamira {

/// How long a transfer waits for the other side.
struct TransferLimits {
  std::chrono::milliseconds connect{std::chrono::seconds(30)};
  /// A transfer that brings less than one byte per second over this time has stalled.
  std::chrono::milliseconds stall{std::chrono::seconds(30)};
};

/// Takes the next bytes of a body. False ends the transfer, and so does what it throws.
using BodyCallback = std::function<bool(std::string_view)>;

/// Bodies come as the server stores them, without content coding. Once for each session.
void SetUpForDownloads(cpr::Session& session);

/// GETs the session's URL and hands the body, whatever the answer's status, to `take` piece by piece on this thread. A
/// transfer that failed, or that `take` ended, has its reason in `error` of the response; `status_code` then is what
/// had been received so far. What `take` throws leaves this function, and the session can be used again.
[[nodiscard]] cpr::Response Fetch(cpr::Session& session, const TransferLimits& limits, const BodyCallback& take);

}  // namespace orbamira
