#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/export.h"

// One request by HTTP, for the updater's library and for programs. Not installed.
namespace orbamira {

/// A request whose reply is taken into memory. Only http and https are used, and redirects are followed: ten at most,
/// and at no step from https to http.
struct NetworkRequest {
  std::string url = {};
  std::vector<std::pair<std::string, std::string>> query = {};  ///< keys and values, not encoded; sent in this order
  bool is_head = false;                                         ///< HEAD instead of GET
  std::chrono::milliseconds connect_limit{0};                   ///< for the connection; 0 for libcurl's own limit
  std::chrono::milliseconds limit{0};                           ///< for the whole request; 0 for none
  std::size_t most_bytes = 0;                                   ///< the longest body that is accepted
};

/// What came back.
struct NetworkReply {
  long status = 0;                           ///< the HTTP status; 0 when none was received
  bool failed = false;                       ///< the transfer broke off or never began
  std::string error = {};                    ///< why it failed
  bool is_too_long = false;                  ///< the body is longer than was accepted, so `body` is empty
  std::string body = {};                     ///< the body as it was sent
  std::optional<std::int64_t> date = {};     ///< the server's clock, in seconds since 1970; empty when not sent
  std::optional<std::uint64_t> length = {};  ///< the body's length as the server states it; empty when it does not
};

/// Sends the request and blocks until the reply is complete. Throws nothing for a transfer that failed, and that one
/// has failed is also the reply when the network module cannot be loaded. May be called by several threads at once.
[[nodiscard]] ORBAMIRA_EXPORT NetworkReply AskNetwork(const NetworkRequest& request);

/// The libraries that speak to the network, as they are now, for example "libcurl 7.88.1, OpenSSL 3.0.19". When the
/// network module cannot be loaded, the reason. May be called by several threads at once.
[[nodiscard]] ORBAMIRA_EXPORT std::string NetworkLibraries();

}  // namespace orbamira
