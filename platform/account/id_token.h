#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Takes identity tokens (JSON Web Tokens, RFC 7519) apart. Nothing here proves that a token is genuine; token_check.h
// does. Not installed.
namespace orbamira {

/// The longest token that is accepted, of any kind, in bytes.
constexpr std::size_t kTokenLimit = std::size_t{64} * 1024;

/// What an identity token claims.
struct IdToken {
  std::string issuer;                 ///< empty when missing
  std::string subject;                ///< empty when missing
  std::vector<std::string> audience;  ///< empty when missing
  std::int64_t expires = 0;           ///< seconds since 1970; 0 when missing, so the token counts as expired

  /// Whether the client is in the audience.
  [[nodiscard]] bool IsFor(const std::string& client) const;
};

/// Reads the claims of a token; empty when ParseJsonWebToken() is.
std::optional<IdToken> ParseIdToken(const std::string& text);

/// The parts of a signed token (RFC 7515). The signature is over the first two encoded ones.
struct JsonWebToken {
  Json::Value header;  ///< an object
  Json::Value claims;  ///< an object
  std::string encoded_header;
  std::string encoded_claims;
  std::string encoded_signature;
};

/// Decodes base64 in the alphabet for URLs, without padding (RFC 4648, section 5); empty for any other text.
std::optional<std::string> DecodeBase64Url(std::string text);

/// Takes a token apart; empty when it is not well formed or is longer than kTokenLimit.
std::optional<JsonWebToken> ParseJsonWebToken(const std::string& text);

/// Reads the claims that IdToken has.
IdToken ReadClaims(const Json::Value& claims);

/// The claim as seconds since 1970; 0 when it is missing, is no number or is beyond any real date.
std::int64_t TimeOf(const Json::Value& value);

/// This machine's time, as claims have it.
std::int64_t SecondsSince1970();

}  // namespace orbamira
