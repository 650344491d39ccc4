#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orbamira {

/// The longest token that is taken, of any kind; in bytes.
constexpr std::size_t kTokenLimit = std::size_t{64} * 1024;

/// What an identity token (a JSON Web Token) says. Nothing of it is proved here: CheckIdToken() does that.
struct IdToken {
  std::string issuer;                 ///< empty when missing
  std::string subject;                ///< empty when missing
  std::vector<std::string> audience;  ///< empty when missing
  std::int64_t expires = 0;           ///< seconds since 1970; 0 when missing, so the token counts as expired

  [[nodiscard]] bool IsFor(const std::string& client) const;
};

/// Reads a token; empty when ParseJsonWebToken() is.
std::optional<IdToken> ParseIdToken(const std::string& text);

/// The parts of a signed token (RFC 7519 and 7515), for whoever looks at its signature.
struct JsonWebToken {
  Json::Value header;  ///< an object
  Json::Value claims;  ///< an object
  std::string encoded_header;
  std::string encoded_claims;
  std::string encoded_signature;
};

/// Base64 in the alphabet for addresses, without padding; empty when the text is none.
std::optional<std::string> DecodeBase64Url(std::string text);

/// Takes a token apart; empty when the text is not a well-formed one, or longer than kTokenLimit.
std::optional<JsonWebToken> ParseJsonWebToken(const std::string& text);

/// What the claims say.
IdToken ReadClaims(const Json::Value& claims);

/// The claim as seconds since 1970; 0 when it is missing, no number or no date that a token can mean.
std::int64_t TimeOf(const Json::Value& value);

}  // namespace orbamira
