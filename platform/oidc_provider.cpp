#include "platform/oidc_provider.h"

#include <cpr/cpr.h>
#include <curl/curl.h>

#include <memory>
#include <optional>
#include <string_view>

#include "platform/json_object.h"
#include "platform/orbazelo.h"

namespace orbazelo {
namespace {

constexpr std::size_t kReplyLimit = std::size_t{1024} * 1024;
constexpr std::size_t kQuoteLimit = 200;

struct Reply {
  long status = 0;
  std::string body;
};

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

// Whether a token may be sent there: over TLS, or without leaving the machine.
bool IsSafeAddress(const std::string& address) {
  const std::unique_ptr<CURLU, UrlCleanup> url(curl_url());
  if (!url || curl_url_set(url.get(), CURLUPART_URL, address.c_str(), 0) != CURLUE_OK) {
    return false;
  }
  const std::string scheme = PartOf(url.get(), CURLUPART_SCHEME);
  const std::string host = PartOf(url.get(), CURLUPART_HOST);
  return scheme == "https" || (scheme == "http" && (host == "127.0.0.1" || host == "[::1]" || host == "localhost"));
}

// One request; a GET without a form and a POST with one.
Reply Ask(const std::string& url, const ProviderLimits& limits, const std::optional<cpr::Payload>& form) {
  Reply reply;
  bool too_long = false;
  cpr::Session session;
  session.SetUrl(cpr::Url(url));
  session.SetHeader({{"Accept", "application/json"}});
  session.SetRedirect(cpr::Redirect(false));
  session.SetConnectTimeout(limits.connect);
  session.SetTimeout(limits.whole);
  session.SetWriteCallback(cpr::WriteCallback([&](std::string_view bytes, intptr_t /*unused*/) {
    too_long = reply.body.size() + bytes.size() > kReplyLimit;
    if (!too_long) {
      reply.body += bytes;
    }
    return !too_long;
  }));
  curl_easy_setopt(session.GetCurlHolder()->handle, CURLOPT_PROTOCOLS_STR, "http,https");
  // The host has threads of its own: time-outs must not come as SIGALRM.
  curl_easy_setopt(session.GetCurlHolder()->handle, CURLOPT_NOSIGNAL, 1L);
  if (form) {
    session.SetPayload(*form);
  }
  const cpr::Response response = form ? session.Post() : session.Get();
  if (too_long) {
    throw ZeloException("the provider's answer is over " + std::to_string(kReplyLimit) + " bytes");
  }
  if (response.error) {
    throw ZeloException("the provider cannot be asked: " + response.error.message);
  }
  reply.status = response.status_code;
  return reply;
}

// A text of the provider's as it may stand in a message: printable, short and without the token that it was sent.
std::string Quote(const Json::Value& value, const std::string& secret) {
  std::string text = value.isString() ? value.asString() : "";
  std::erase_if(text, [](char c) { return c < ' ' || c > '~'; });
  if (text.find(secret) != std::string::npos) {
    return "";
  }
  return text.substr(0, kQuoteLimit);
}

std::string FindTokenEndpoint(const std::string& issuer, const ProviderLimits& limits) {
  if (!IsSafeAddress(issuer)) {
    throw ZeloException("the issuer is neither https nor on this machine: " + issuer);
  }
  const std::string base = issuer.ends_with('/') ? issuer.substr(0, issuer.size() - 1) : issuer;
  const Reply reply = Ask(base + "/.well-known/openid-configuration", limits, std::nullopt);
  if (reply.status != 200) {
    throw ZeloException("the provider answered " + std::to_string(reply.status) + " when asked for its configuration");
  }
  const std::optional<Json::Value> configuration = ParseJsonObject(reply.body);
  if (!configuration) {
    throw ZeloException("the provider's configuration is not a JSON object");
  }
  // Or one provider could speak for another.
  if ((*configuration)["issuer"] != Json::Value(issuer)) {
    throw ZeloException("the provider's configuration is of another issuer than " + issuer);
  }
  const Json::Value endpoint = (*configuration)["token_endpoint"];
  if (!endpoint.isString() || !IsSafeAddress(endpoint.asString())) {
    throw ZeloException("the provider's configuration has no token endpoint that is https or on this machine");
  }
  return endpoint.asString();
}

[[noreturn]] void ThrowRefusal(const Reply& reply, const std::string& refresh_token) {
  std::string reason = "the provider refused to renew the token: status " + std::to_string(reply.status);
  if (const std::optional<Json::Value> details = ParseJsonObject(reply.body)) {
    for (const char* const member : {"error", "error_description"}) {
      const std::string text = Quote((*details)[member], refresh_token);
      reason += text.empty() ? "" : ", " + text;
    }
  }
  throw ZeloException(reason);
}

}  // namespace

RefreshedTokens RefreshTokens(const std::string& issuer, const std::string& client_id, const std::string& refresh_token,
                              const ProviderLimits& limits) {
  const std::string endpoint = FindTokenEndpoint(issuer, limits);
  const Reply reply =
      Ask(endpoint, limits,
          cpr::Payload{{"grant_type", "refresh_token"}, {"refresh_token", refresh_token}, {"client_id", client_id}});
  if (reply.status != 200) {
    ThrowRefusal(reply, refresh_token);
  }
  const std::optional<Json::Value> tokens = ParseJsonObject(reply.body);
  if (!tokens) {
    throw ZeloException("the provider's answer is not a JSON object");
  }
  const Json::Value rotated = tokens->get("refresh_token", "");
  if (!rotated.isString()) {
    throw ZeloException("the provider's refresh token is not a text");
  }
  const Json::Value id_token = tokens->get("id_token", "");
  return {id_token.isString() ? id_token.asString() : "", rotated.asString()};
}

}  // namespace orbazelo
