#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

// What an OpenID Connect provider is asked, by the account client and by packctl's sign-in. Not installed.
//
// Every function throws ZeloException with the reason for everything that goes wrong; the reason never holds a token, a
// code or a verifier. Each request takes only so long, and so much of an answer. No redirect is followed. Addresses
// must be https, or http on the loopback of this machine.
namespace orbamira {

/// How long one request to the provider may take.
struct ProviderLimits {
  std::chrono::milliseconds connect{std::chrono::seconds(10)};
  std::chrono::milliseconds whole{std::chrono::seconds(20)};
};

/// What the provider gave. Nothing of it is examined yet.
struct IssuedTokens {
  std::string id_token;              ///< empty when missing
  std::string refresh_token;         ///< empty when missing; the old one then goes on
  std::string access_token;          ///< empty when missing
  std::optional<std::int64_t> date;  ///< the provider's clock, in seconds since 1970; empty when it does not tell
};

/// What stands for the user's consent (Core 1.0, section 3.1.3.1, and RFC 7636).
struct CodeGrant {
  std::string code;
  std::string redirect_uri;
  std::string client_id;
  std::string code_verifier;
};

/// What the provider `issuer` says of itself (Discovery 1.0, section 4); its "issuer" is the one asked.
Json::Value DiscoverProvider(const std::string& issuer, const ProviderLimits& limits = {});

/// The address that the provider's configuration gives under the name.
std::string EndpointOf(const Json::Value& configuration, const std::string& name);

/// The tokens for a code (Core 1.0, section 3.1.3).
IssuedTokens ExchangeCode(const std::string& token_endpoint, const CodeGrant& grant, const ProviderLimits& limits = {});

/// New tokens for a refresh token (Core 1.0, section 12).
IssuedTokens RefreshTokens(const std::string& token_endpoint, const std::string& client_id,
                           const std::string& refresh_token, const ProviderLimits& limits = {});

/// Makes a refresh token worthless (RFC 7009).
void RevokeToken(const std::string& revocation_endpoint, const std::string& client_id, const std::string& refresh_token,
                 const ProviderLimits& limits = {});

/// The provider's keys, a JSON Web Key Set, as sent.
std::string FetchKeys(const std::string& jwks_uri, const ProviderLimits& limits = {});

/// In words for the end of a sentence, by how much this machine's clock differs from the provider's; empty when that is
/// too little to be the cause of a fault, or not known. Both in seconds since 1970.
std::string ClockFault(std::int64_t now, std::optional<std::int64_t> provider);

}  // namespace orbamira
