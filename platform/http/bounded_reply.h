#pragma once

#include <cpr/cpr.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iomanip>
#include <locale>
#include <optional>
#include <sstream>
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

/// The server's clock, in seconds since 1970; empty when it did not send it. In the form that RFC 9110 has servers
/// send; curl_getdate() takes others too, but a time of the system's libcurl may have fewer bits than ours.
inline std::optional<std::int64_t> DateOf(const cpr::Header& header) {
  const auto date = header.find("Date");
  if (date == header.end()) {
    return std::nullopt;
  }
  std::istringstream text(date->second);
  text.imbue(std::locale::classic());
  std::tm parts = {};
  text >> std::get_time(&parts, "%a, %d %b %Y %H:%M:%S GMT");
  const std::int64_t seconds = text.fail() ? -1 : timegm(&parts);
  return seconds >= 0 ? std::optional<std::int64_t>(seconds) : std::nullopt;
}

}  // namespace orbamira
