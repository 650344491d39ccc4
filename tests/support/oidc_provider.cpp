#include "tests/support/oidc_provider.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <locale>
#include <sstream>
#include <vector>

namespace orbamira::test {
namespace {

constexpr const char* kTokenTarget = "/token";

std::string ToText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

std::string Sha256(const std::string& text) {
  std::string digest(32, '\0');
  EVP_Q_digest(nullptr, "SHA256", nullptr, text.data(), text.size(), reinterpret_cast<unsigned char*>(digest.data()),
               nullptr);
  return digest;
}

std::string Decoded(const std::string& text) {
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '%' && at + 2 < text.size()) {
      result += static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16));
      at += 2;
    } else {
      result += text[at] == '+' ? ' ' : text[at];
    }
  }
  return result;
}

std::string Encoded(const std::string& text) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0 || c == '-' || c == '_' || c == '.') {
      result += c;
    } else {
      result += {'%', kDigits[byte / 16], kDigits[byte % 16]};
    }
  }
  return result;
}

std::string HttpDate(std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts{};
  gmtime_r(&time, &parts);
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << std::put_time(&parts, "%a, %d %b %Y %H:%M:%S GMT");
  return text.str();
}

HttpResponse Refusal(const std::string& error) { return {.status = 400, .body = R"({"error":")" + error + "\"}"}; }

HttpResponse SendTo(std::string address, const std::map<std::string, std::string>& parameters) {
  char separator = '?';
  for (const auto& [name, value] : parameters) {
    address += separator + name + '=' + Encoded(value);
    separator = '&';
  }
  return {.status = 303, .headers = {{"Location", address}}};
}

}  // namespace

std::int64_t UnixTime() {
  return std::time(nullptr);  // a client's clock: others begin a second some milliseconds earlier
}

std::string MakeIdToken(const Json::Value& claims) {
  return EncodeBase64Url(R"({"alg":"RS256"})") + "." + EncodeBase64Url(ToText(claims)) + "." +
         EncodeBase64Url("signature");
}

std::map<std::string, std::string> ParseForm(const std::string& text) {
  std::map<std::string, std::string> form;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('&', at), text.size());
    const std::string pair = text.substr(at, end - at);
    const std::size_t equal = std::min(pair.find('='), pair.size());
    form[Decoded(pair.substr(0, equal))] = equal < pair.size() ? Decoded(pair.substr(equal + 1)) : "";
    at = end + 1;
  }
  return form;
}

OidcProvider::OidcProvider() : server_([this](const HttpRequest& request) { return Answer(request); }) {
  configuration["issuer"] = issuer();
  configuration["authorization_endpoint"] = server_.Url("/authorize");
  configuration["token_endpoint"] = server_.Url(kTokenTarget);
  configuration["jwks_uri"] = server_.Url("/keys");
  configuration["revocation_endpoint"] = server_.Url("/revoke");
  configuration["response_types_supported"].append("code");
  configuration["code_challenge_methods_supported"].append("S256");
  configuration["id_token_signing_alg_values_supported"].append("ES256");
}

Json::Value OidcProvider::Claims(const std::string& audience, std::int64_t seconds) const {
  Json::Value claims;
  claims["iss"] = issuer();
  claims["sub"] = user;
  claims["aud"] = audience;
  claims["iat"] = UnixTime() + clock_offset;
  claims["exp"] = UnixTime() + clock_offset + seconds;
  return claims;
}

std::size_t OidcProvider::TokenRequests() const {
  const std::vector<HttpRequest> requests = server_.Requests();
  return static_cast<std::size_t>(std::count_if(
      requests.begin(), requests.end(), [](const HttpRequest& request) { return request.target == kTokenTarget; }));
}

std::string OidcProvider::LastForm() const {
  const std::vector<HttpRequest> requests = server_.Requests();
  const auto last = std::find_if(requests.rbegin(), requests.rend(),
                                 [](const HttpRequest& request) { return request.method == "POST"; });
  return last == requests.rend() ? "" : last->body;
}

HttpResponse OidcProvider::Answer(const HttpRequest& request) {
  HttpResponse response = Route(request);
  response.headers.try_emplace("Date", HttpDate(UnixTime() + clock_offset));
  return response;
}

HttpResponse OidcProvider::Route(const HttpRequest& request) {
  const std::size_t question = std::min(request.target.find('?'), request.target.size());
  const std::string path = request.method + " " + request.target.substr(0, question);
  if (path == "GET /.well-known/openid-configuration") {
    return discovery_answer ? discovery_answer() : HttpResponse{.body = ToText(configuration)};
  }
  if (path == "GET /authorize" && question < request.target.size()) {
    const auto query = ParseForm(request.target.substr(question + 1));
    return shows_login ? LoginPage(query) : Authorize(query);
  }
  if (path == "POST /login") {
    return Authorize(ParseForm(request.body));
  }
  if (path == "GET /keys") {
    Json::Value set;
    set["keys"].append(key.jwk());
    return keys_answer ? keys_answer() : HttpResponse{.body = ToText(keys.value_or(set))};
  }
  if (path == "POST /token") {
    return token_answer ? token_answer() : GiveTokens(ParseForm(request.body));
  }
  if (path == "POST /revoke") {
    return revocation_answer ? revocation_answer() : Revoke(ParseForm(request.body));
  }
  return {.status = 404};
}

HttpResponse OidcProvider::LoginPage(const std::map<std::string, std::string>& query) const {
  std::ostringstream page;
  page << "<!doctype html><html lang=\"en\"><meta charset=\"utf-8\"><title>Example accounts</title>"
          "<style>body{font:1.1rem sans-serif;margin:15vh auto;max-width:24rem}</style>"
          "<h1>Example accounts</h1><form method=\"post\" action=\"/login\">";
  for (const auto& [name, value] : query) {
    page << R"(<input type="hidden" name=")" << name << R"(" value=")" << value << "\">";
  }
  page << "<p><label>User <input id=\"user\" autofocus></label></p><p><button>Sign in</button></p></form></html>";
  return {.headers = {{"Content-Type", "text/html; charset=utf-8"}}, .body = page.str()};
}

HttpResponse OidcProvider::Authorize(const std::map<std::string, std::string>& query) {
  const auto value = [&](const char* name) { return query.contains(name) ? query.at(name) : ""; };
  if (value("client_id") != client || value("response_type") != "code" || value("code_challenge_method") != "S256" ||
      !value("redirect_uri").starts_with("http://127.0.0.1:") || !value("scope").starts_with("openid")) {
    return {.status = 400};
  }
  std::map<std::string, std::string> answer = callback;
  answer.try_emplace("state", value("state"));
  if (callback.empty()) {
    answer["code"] = NewSecret();
    grants_[answer["code"]] = {value("redirect_uri"), value("nonce"), value("code_challenge")};
  }
  return SendTo(value("redirect_uri"), answer);
}

HttpResponse OidcProvider::GiveTokens(const std::map<std::string, std::string>& form) {
  const auto value = [&](const char* name) { return form.contains(name) ? form.at(name) : ""; };
  if (value("grant_type") == "refresh_token") {
    if (!token_response.isNull()) {
      return {.body = ToText(token_response)};
    }
    const bool good =
        !refresh_token_.empty() && value("refresh_token") == refresh_token_ && value("client_id") == client;
    return good ? IssueTokens("") : Refusal("invalid_grant");
  }
  secrets_.insert(value("code_verifier"));
  const auto grant = grants_.extract(value("code"));
  if (grant.empty() || value("grant_type") != "authorization_code" || value("client_id") != client ||
      value("redirect_uri") != grant.mapped().redirect_uri ||
      EncodeBase64Url(Sha256(value("code_verifier"))) != grant.mapped().code_challenge) {
    return Refusal("invalid_grant");
  }
  return IssueTokens(grant.mapped().nonce);
}

HttpResponse OidcProvider::Revoke(const std::map<std::string, std::string>& form) {
  if (form.contains("token") && form.at("token") == refresh_token_) {
    refresh_token_.clear();
  }
  return {};
}

HttpResponse OidcProvider::IssueTokens(const std::string& nonce) {
  Json::Value response;
  response["token_type"] = "Bearer";
  response["access_token"] = NewSecret();
  if (gives_refresh_token) {
    response["refresh_token"] = refresh_token_ = NewSecret();
  }
  Json::Value header;
  header["alg"] = key.jwk()["kty"] == "RSA" ? "RS256" : "ES256";
  header["kid"] = key.jwk()["kid"];
  Json::Value claims = Claims(client, lifetime);
  if (!nonce.empty()) {
    claims["nonce"] = nonce;
  }
  claims["at_hash"] = EncodeBase64Url(Sha256(response["access_token"].asString()).substr(0, 16));
  if (token_change) {
    token_change(header, claims);
  }
  const std::string id_token = key.MakeToken(header, claims);
  secrets_.insert(id_token);
  response["id_token"] = id_token;
  return {.headers = {{"Cache-Control", "no-store"}}, .body = ToText(response)};
}

std::string OidcProvider::NewSecret() {
  std::string bytes(24, '\0');
  RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  return *secrets_.insert(EncodeBase64Url(bytes)).first;
}

}  // namespace orbamira::test
