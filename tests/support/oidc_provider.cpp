#include "tests/support/oidc_provider.h"

#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace orbamira::test {
namespace {

constexpr const char* kTokenTarget = "/token";

std::string EncodeBase64Url(const std::string& text) {
  std::vector<unsigned char> encoded((text.size() + 2) / 3 * 4 + 1);
  const int size = EVP_EncodeBlock(encoded.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                   static_cast<int>(text.size()));
  std::string result(encoded.begin(), encoded.begin() + size);
  std::replace(result.begin(), result.end(), '+', '-');
  std::replace(result.begin(), result.end(), '/', '_');
  result.erase(std::find(result.begin(), result.end(), '='), result.end());
  return result;
}

std::string ToText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

}  // namespace

std::int64_t UnixTime() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string MakeIdToken(const Json::Value& claims) {
  return EncodeBase64Url(R"({"alg":"RS256"})") + "." + EncodeBase64Url(ToText(claims)) + "." +
         EncodeBase64Url("signature");
}

OidcProvider::OidcProvider() : server_([this](const HttpRequest& request) { return Answer(request); }) {
  configuration["issuer"] = issuer();
  configuration["token_endpoint"] = server_.Url(kTokenTarget);
}

Json::Value OidcProvider::Claims(const std::string& client, std::int64_t seconds) const {
  Json::Value claims;
  claims["iss"] = issuer();
  claims["sub"] = "user";
  claims["aud"] = client;
  claims["exp"] = UnixTime() + seconds;
  return claims;
}

std::size_t OidcProvider::TokenRequests() const {
  const std::vector<HttpRequest> requests = server_.Requests();
  return static_cast<std::size_t>(std::count_if(
      requests.begin(), requests.end(), [](const HttpRequest& request) { return request.target == kTokenTarget; }));
}

std::string OidcProvider::LastForm() const {
  const std::vector<HttpRequest> requests = server_.Requests();
  return requests.empty() ? "" : requests.back().body;
}

HttpResponse OidcProvider::Answer(const HttpRequest& request) const {
  if (request.method == "GET" && request.target == "/.well-known/openid-configuration") {
    return discovery_answer ? discovery_answer() : HttpResponse{.body = ToText(configuration)};
  }
  if (request.method == "POST" && request.target == kTokenTarget) {
    return token_answer ? token_answer() : HttpResponse{.body = ToText(token_response)};
  }
  return {.status = 404};
}

}  // namespace orbamira::test
