#pragma once

#include <json/json.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "tests/support/http_server.h"
#include "tests/support/signing_key.h"

namespace orbamira::test {

/// Seconds since 1970, now.
std::int64_t UnixTime();

/// A JSON Web Token with these claims and a signature of no worth.
std::string MakeIdToken(const Json::Value& claims);

/// The parameters of a query or a form, decoded.
std::map<std::string, std::string> ParseForm(const std::string& text);

/// An OpenID Connect provider on a server of its own. It answers as it should until a test replaces an answer; do so
/// before the first request, or while nobody asks.
class OidcProvider {
 public:
  OidcProvider();

  /// Also the address of the server.
  [[nodiscard]] std::string issuer() const { return server_.Url(""); }

  /// The claims of a token of this provider that is valid for `seconds` from now.
  [[nodiscard]] Json::Value Claims(const std::string& audience, std::int64_t seconds) const;

  /// How many requests came for new tokens, and the form of the last of them.
  [[nodiscard]] std::size_t TokenRequests() const;
  [[nodiscard]] std::string LastForm() const;

  [[nodiscard]] const HttpServer& server() const { return server_; }

  Json::Value configuration;   ///< what discovery finds
  Json::Value token_response;  ///< what a refresh token is exchanged for; null: new tokens, and the old ones end
  /// Stand in for the two answers where the members above cannot say it.
  std::function<HttpResponse()> discovery_answer;
  std::function<HttpResponse()> token_answer;

  // Of signing in: the user is asked nothing, and his browser is sent back at once.

  std::string user = "user";
  std::string client = "orbamira-updater";  ///< the only one that it knows
  SigningKey key = SigningKey::Ec("key-1");
  std::optional<Json::Value> keys;  ///< the keys that it shows, in place of the true ones
  std::int64_t clock_offset = 0;    ///< of its clock, in seconds
  std::int64_t lifetime = 3600;     ///< of an identity token, in seconds
  bool gives_refresh_token = true;
  bool shows_login = false;                     ///< its own page, on which the user signs in
  std::map<std::string, std::string> callback;  ///< what the browser is sent back with, in place of a code
  std::function<void(Json::Value& header, Json::Value& claims)> token_change;
  std::function<HttpResponse()> keys_answer;
  std::function<HttpResponse()> revocation_answer;

  /// Every code, verifier and token that was ever used here, to be looked for where they must not be.
  [[nodiscard]] const std::set<std::string>& secrets() const { return secrets_; }

  /// The refresh token that is good now; empty without one.
  [[nodiscard]] const std::string& refresh_token() const { return refresh_token_; }

 private:
  struct Grant {
    std::string redirect_uri;
    std::string nonce;
    std::string code_challenge;
  };

  HttpResponse Answer(const HttpRequest& request);
  HttpResponse Route(const HttpRequest& request);
  HttpResponse Authorize(const std::map<std::string, std::string>& query);
  HttpResponse LoginPage(const std::map<std::string, std::string>& query) const;
  HttpResponse GiveTokens(const std::map<std::string, std::string>& form);
  HttpResponse Revoke(const std::map<std::string, std::string>& form);
  HttpResponse IssueTokens(const std::string& nonce);
  std::string NewSecret();

  std::map<std::string, Grant> grants_;  // by code
  std::string refresh_token_;
  std::set<std::string> secrets_;
  HttpServer server_;  // last: its threads use the others
};

}  // namespace orbamira::test
