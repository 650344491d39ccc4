#pragma once

#include <cpr/cpr.h>
#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

// Takes a reply into memory, but only up to a limit: any server can send any number of bytes. Not installed.
namespace orbamira {

/// How to send the request: &cpr::Session::Get, or Post for the session's payload.
using SendRequest = cpr::Response (cpr::Session::*)();

/// A reply of limited length.
struct BoundedReply {
  cpr::Response response;    ///< `text` is the body
  bool is_too_long = false;  ///< the transfer was stopped: `text` is empty, and `error` says nothing else
};

/// Sends the session's request and takes a body of at most `limit` bytes. Blocks until the transfer ends.
inline BoundedReply SendBounded(cpr::Session& session, SendRequest send, std::size_t limit) {
  BoundedReply reply;
  std::string body;
  session.SetWriteCallback(cpr::WriteCallback([&](std::string_view bytes, intptr_t /*unused*/) {
    reply.is_too_long = bytes.size() > limit - body.size();
    if (!reply.is_too_long) {
      body += bytes;
    }
    return !reply.is_too_long;
  }));
  reply.response = (session.*send)();
  if (!reply.is_too_long) {
    reply.response.text = std::move(body);
  }
  return reply;
}

/// The server's clock, in seconds since 1970; empty when it did not send it.
inline std::optional<std::int64_t> DateOf(const cpr::Header& header) {
  const auto date = header.find("Date");
  const std::time_t seconds = date != header.end() ? curl_getdate(date->second.c_str(), nullptr) : -1;
  return seconds >= 0 ? std::optional<std::int64_t>(seconds) : std::nullopt;
}

}  // namespace orbamira
