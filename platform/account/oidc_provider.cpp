#include "platform/account/oidc_provider.h"

#include <cpr/cpr.h>
#include <curl/curl.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/account/id_token.h"
#include "platform/http/bounded_reply.h"
#include "platform/http/http_only.h"
#include "platform/http/network_settings.h"
#include "platform/json/json_object.h"
#include "platform/orbazelo.h"

namespace orbamira {
namespace {

using orbazelo::ZeloException;

constexpr std::size_t kReplyLimit = std::size_t{1024} * 1024;
constexpr std::size_t kQuoteLimit = 200;

using Secrets = std::vector<std::string>;

struct Reply {
  long status = 0;
  std::string body;
  std::optional<std::int64_t> date;  // empty when the provider does not send it
};

constexpr long kOk = 200;

struct UrlCleanup {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

std::string PartOf(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) {
    return "";
  }
  std::string copy(text);
  curl_free(text);
  return copy;
}

struct Address {
  std::string scheme;
  std::string host;
};

// Both parts are empty when the text is no URL.
Address AddressOf(const std::string& text) {
  const std::unique_ptr<CURLU, UrlCleanup> url(curl_url());
  if (!url || curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) {
    return {};
  }
  return {PartOf(url.get(), CURLUPART_SCHEME), PartOf(url.get(), CURLUPART_HOST)};
}

bool IsOnThisMachine(const Address& address) {
  return address.host == "127.0.0.1" || address.host == "[::1]" || address.host == "localhost";
}

// Whether a token may be sent there: only over TLS, or within this machine.
bool IsSafeAddress(const std::string& text) {
  const Address address = AddressOf(text);
  return address.scheme == "https" || (address.scheme == "http" && IsOnThisMachine(address));
}

void UseSettings(cpr::Session& session) try {
  UseNetworkSettings(session, ReadNetworkSettings());
} catch (const std::runtime_error& error) {
  throw ZeloException(error.what());
}

// Sends one request: a POST with a form, a GET without one.
Reply Ask(const std::string& url, const ProviderLimits& limits, const std::optional<cpr::Payload>& form) {
  cpr::Session session;
  UseSettings(session);
  SetHttpUrl(session, url);
  session.SetHeader({{"Accept", "application/json"}});
  session.SetRedirect(cpr::Redirect(false));
  session.SetConnectTimeout(limits.connect);
  session.SetTimeout(limits.whole);
  // Otherwise curl may use SIGALRM for time-outs, and the host has threads of its own.
  curl_easy_setopt(session.GetCurlHolder()->handle, CURLOPT_NOSIGNAL, 1L);
  // For a proxy, "localhost" would be the proxy's machine.
  if (IsOnThisMachine(AddressOf(url))) {
    curl_easy_setopt(session.GetCurlHolder()->handle, CURLOPT_NOPROXY, "*");
  }
  if (form) {
    session.SetPayload(*form);
  }
  auto [response, is_too_long] = SendBounded(session, form ? &cpr::Session::Post : &cpr::Session::Get, kReplyLimit);
  if (is_too_long) {
    throw ZeloException("the provider's answer is over " + std::to_string(kReplyLimit) + " bytes");
  }
  if (response.error) {
    throw ZeloException("the request to the provider failed: " + response.error.message);
  }
  return {response.status_code, std::move(response.text), DateOf(response.header)};
}

// A text from the provider made fit for a message: printable, short and without the secrets that we sent.
std::string Quote(const Json::Value& value, const Secrets& secrets) {
  std::string text = TextOf(value);
  std::erase_if(text, [](char c) { return c < ' ' || c > '~'; });
  const bool tells = std::any_of(secrets.begin(), secrets.end(),
                                 [&](const std::string& secret) { return text.find(secret) != std::string::npos; });
  return tells ? "" : text.substr(0, kQuoteLimit);
}

[[noreturn]] void ThrowRefusal(const Reply& reply, const std::string& what, const Secrets& secrets) {
  std::string reason = "the provider refused to " + what + ": status " + std::to_string(reply.status);
  if (const std::optional<Json::Value> details = ParseJsonObject(reply.body)) {
    for (const char* const member : {"error", "error_description"}) {
      const std::string text = Quote((*details)[member], secrets);
      reason += text.empty() ? "" : ", " + text;
    }
    reason += (*details)["error"] == "invalid_grant" ? "; sign in again" : "";
  }
  throw ZeloException(reason);
}

// RFC 6749, appendix A.17; and no longer than we can store.
bool IsToken(const std::string& text) {
  return text.size() <= kTokenLimit &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

// Sends the form to a token endpoint. `what` says for the error message what the provider refused; `secrets` must not
// appear in it.
IssuedTokens RequestTokens(const std::string& endpoint, const cpr::Payload& form, const ProviderLimits& limits,
                           const std::string& what, const Secrets& secrets) {
  const Reply reply = Ask(endpoint, limits, form);
  if (reply.status != kOk) {
    ThrowRefusal(reply, what, secrets);
  }
  const std::optional<Json::Value> tokens = ParseJsonObject(reply.body);
  if (!tokens) {
    throw ZeloException("the provider's answer is not a JSON object");
  }
  const Json::Value refresh_token = tokens->get("refresh_token", "");
  if (!refresh_token.isString() || !IsToken(refresh_token.asString())) {
    throw ZeloException("the provider's refresh token is malformed or too long");
  }
  return {TextOf((*tokens)["id_token"]), refresh_token.asString(), TextOf((*tokens)["access_token"]), reply.date};
}

}  // namespace

Json::Value DiscoverProvider(const std::string& issuer, const ProviderLimits& limits) {
  if (!IsSafeAddress(issuer)) {
    throw ZeloException("the issuer is neither https nor on this machine: " + issuer);
  }
  const std::string base = issuer.ends_with('/') ? issuer.substr(0, issuer.size() - 1) : issuer;
  const Reply reply = Ask(base + "/.well-known/openid-configuration", limits, std::nullopt);
  if (reply.status != kOk) {
    throw ZeloException("the provider answered " + std::to_string(reply.status) + " when asked for its configuration");
  }
  std::optional<Json::Value> configuration = ParseJsonObject(reply.body);
  if (!configuration) {
    throw ZeloException("the provider's configuration is not a JSON object");
  }
  // Otherwise one provider could pose as another. The message shows the name only when it differs by a slash: a hostile
  // provider could put a token there.
  if (const std::string name = TextOf((*configuration)["issuer"]); name != issuer) {
    const bool but_for_slash = name == issuer + "/" || name + "/" == issuer;
    throw ZeloException("the provider's configuration is from another issuer than " + issuer +
                        (but_for_slash ? ": it names itself " + name : ""));
  }
  return *std::move(configuration);
}

std::string EndpointOf(const Json::Value& configuration, const std::string& name) {
  std::string address = TextOf(configuration[name]);
  if (!IsSafeAddress(address)) {
    throw ZeloException("the provider's configuration has no " + name + " that is https or on this machine");
  }
  return address;
}

IssuedTokens ExchangeCode(const std::string& token_endpoint, const CodeGrant& grant, const ProviderLimits& limits) {
  return RequestTokens(token_endpoint,
                       cpr::Payload{{"grant_type", "authorization_code"},
                                    {"code", grant.code},
                                    {"redirect_uri", grant.redirect_uri},
                                    {"client_id", grant.client_id},
                                    {"code_verifier", grant.code_verifier}},
                       limits, "give tokens for the sign-in", {grant.code, grant.code_verifier});
}

IssuedTokens RefreshTokens(const std::string& token_endpoint, const std::string& client_id,
                           const std::string& refresh_token, const ProviderLimits& limits) {
  return RequestTokens(
      token_endpoint,
      cpr::Payload{{"grant_type", "refresh_token"}, {"refresh_token", refresh_token}, {"client_id", client_id}}, limits,
      "renew the token", {refresh_token});
}

void RevokeToken(const std::string& revocation_endpoint, const std::string& client_id, const std::string& refresh_token,
                 const ProviderLimits& limits) {
  const Reply reply =
      Ask(revocation_endpoint, limits,
          cpr::Payload{{"token", refresh_token}, {"token_type_hint", "refresh_token"}, {"client_id", client_id}});
  if (reply.status != kOk) {
    ThrowRefusal(reply, "revoke the token", {refresh_token});
  }
}

std::string FetchKeys(const std::string& jwks_uri, const ProviderLimits& limits) {
  Reply reply = Ask(jwks_uri, limits, std::nullopt);
  if (reply.status != kOk) {
    throw ZeloException("the provider answered " + std::to_string(reply.status) + " when asked for its keys");
  }
  return std::move(reply.body);
}

std::string ClockFault(std::int64_t now, std::optional<std::int64_t> provider) {
  constexpr std::int64_t kUsual = 5LL * 60;
  const std::int64_t difference = now - provider.value_or(now);
  if (std::abs(difference) < kUsual) {
    return "";
  }
  return "this machine's clock is " + std::to_string(std::abs(difference) / 60) + " minutes " +
         (difference > 0 ? "ahead of" : "behind") + " the provider's";
}

}  // namespace orbamira
