#pragma once

#include <json/json.h>

#include <cstdint>
#include <functional>
#include <string>

#include "tests/support/http_server.h"

namespace orbamira::test {

/// Seconds since 1970, now.
std::int64_t UnixTime();

/// A JSON Web Token with these claims and a signature of no worth.
std::string MakeIdToken(const Json::Value& claims);

/// An OpenID Connect provider on a server of its own. It answers as it should until a test replaces an answer; do so
/// before the first request.
class OidcProvider {
 public:
  OidcProvider();

  /// Also the address of the server.
  [[nodiscard]] std::string issuer() const { return server_.Url(""); }

  /// The claims of a token of this provider that is valid for `seconds` from now.
  [[nodiscard]] Json::Value Claims(const std::string& client, std::int64_t seconds) const;

  /// How many requests came for new tokens, and the form of the last of them.
  [[nodiscard]] std::size_t TokenRequests() const;
  [[nodiscard]] std::string LastForm() const;

  [[nodiscard]] const HttpServer& server() const { return server_; }

  Json::Value configuration;   ///< what discovery finds
  Json::Value token_response;  ///< what a refresh token is exchanged for
  /// Stand in for the two answers where the members above cannot say it.
  std::function<HttpResponse()> discovery_answer;
  std::function<HttpResponse()> token_answer;

 private:
  HttpResponse Answer(const HttpRequest& request) const;

  HttpServer server_;
};

}  // namespace orbamira::test
