#include "platform/account/id_token.h"

#include <openssl/evp.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "platform/json/json_object.h"

namespace orbamira {
namespace {

// Later than any real date, and exact as a double.
constexpr double kLatest = 1e15;

bool IsBase64Url(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

}  // namespace

std::optional<std::string> DecodeBase64Url(std::string text) {
  const std::size_t padding = (4 - text.size() % 4) % 4;
  if (text.empty() || padding == 3 || !std::all_of(text.begin(), text.end(), IsBase64Url)) {
    return std::nullopt;
  }
  std::replace(text.begin(), text.end(), '-', '+');
  std::replace(text.begin(), text.end(), '_', '/');
  text.append(padding, '=');
  std::vector<unsigned char> bytes(text.size() / 4 * 3);
  if (EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                      static_cast<int>(text.size())) < 0) {
    return std::nullopt;
  }
  return std::string(bytes.begin(), bytes.end() - static_cast<std::ptrdiff_t>(padding));
}

namespace {

std::optional<Json::Value> DecodeObject(const std::string& part) {
  const std::optional<std::string> text = DecodeBase64Url(part);
  return text ? ParseJsonObject(*text) : std::nullopt;
}

std::vector<std::string> AudienceOf(const Json::Value& value) {
  std::vector<std::string> audience;
  if (value.isString()) {
    audience.push_back(value.asString());
  } else if (value.isArray()) {
    std::transform(value.begin(), value.end(), std::back_inserter(audience), TextOf);
  }
  return audience;
}

}  // namespace

std::int64_t TimeOf(const Json::Value& value) {
  const double seconds = value.isNumeric() ? value.asDouble() : 0;
  return seconds > 0 && seconds < kLatest ? static_cast<std::int64_t>(seconds) : 0;
}

std::int64_t SecondsSince1970() {
  return std::time(nullptr);  // where std::chrono's clock has 32 bits, it ends in 2038
}

bool IdToken::IsFor(const std::string& client) const {
  return std::find(audience.begin(), audience.end(), client) != audience.end();
}

std::optional<JsonWebToken> ParseJsonWebToken(const std::string& text) {
  const std::size_t first = text.find('.');
  const std::size_t second = first == std::string::npos ? first : text.find('.', first + 1);
  if (text.size() > kTokenLimit || second == std::string::npos || !DecodeBase64Url(text.substr(second + 1))) {
    return std::nullopt;
  }
  JsonWebToken token{
      {}, {}, text.substr(0, first), text.substr(first + 1, second - first - 1), text.substr(second + 1)};
  std::optional<Json::Value> header = DecodeObject(token.encoded_header);
  std::optional<Json::Value> claims = DecodeObject(token.encoded_claims);
  if (!header || !claims) {
    return std::nullopt;
  }
  token.header = *std::move(header);
  token.claims = *std::move(claims);
  return token;
}

IdToken ReadClaims(const Json::Value& claims) {
  return {TextOf(claims["iss"]), TextOf(claims["sub"]), AudienceOf(claims["aud"]), TimeOf(claims["exp"])};
}

std::optional<IdToken> ParseIdToken(const std::string& text) {
  const std::optional<JsonWebToken> token = ParseJsonWebToken(text);
  return token ? std::optional(ReadClaims(token->claims)) : std::nullopt;
}

}  // namespace orbamira
