#pragma once

#include <cpr/cpr.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

// A reply that is kept in memory, from a server that nobody vouches for. Not installed; all in the header, because the
// platform's library exports nothing of it and others need it too.
namespace orbamira {

/// A request's way: &cpr::Session::Get, or Post with the payload that the session has.
using SendRequest = cpr::Response (cpr::Session::*)();

/// What came back.
struct BoundedReply {
  cpr::Response response;    ///< `text` is the body
  bool is_too_long = false;  ///< the transfer was ended: `text` is empty, and `error` says no more than that
};

/// Sends what the session is set up for and takes a body of at most `limit` bytes. Blocks until the transfer ends.
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

}  // namespace orbamira
