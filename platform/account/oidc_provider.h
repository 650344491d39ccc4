#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

// The requests to an OpenID Connect provider, for the account client and for packctl's sign-in. Not installed.
//
// Every function blocks until the provider answers, and throws ZeloException for every failure; its text never contains
// a token, a code or a verifier. Requests have a time limit and a limit on the answer's size (1 MiB). They follow no
// redirect. Addresses must be https, or http on this machine.
namespace orbamira {

/// How long one request to the provider may take.
struct ProviderLimits {
  std::chrono::milliseconds connect{std::chrono::seconds(10)};
  std::chrono::milliseconds whole{std::chrono::seconds(20)};
};

/// The tokens in the provider's answer, not yet checked.
struct IssuedTokens {
  std::string id_token;              ///< empty when missing
  std::string refresh_token;         ///< empty when missing; the old one then stays valid
  std::string access_token;          ///< empty when missing
  std::optional<std::int64_t> date;  ///< the provider's clock, in seconds since 1970; empty when not sent
};

/// What a sign-in exchanges for tokens (Core 1.0, section 3.1.3.1, and RFC 7636).
struct CodeGrant {
  std::string code;
  std::string redirect_uri;
  std::string client_id;
  std::string code_verifier;
};

/// Fetches the provider's configuration (Discovery 1.0, section 4). Its "issuer" must be the one that was asked.
Json::Value DiscoverProvider(const std::string& issuer, const ProviderLimits& limits = {});

/// The address in the member `name` of the provider's configuration.
std::string EndpointOf(const Json::Value& configuration, const std::string& name);

/// Exchanges a code for tokens (Core 1.0, section 3.1.3).
IssuedTokens ExchangeCode(const std::string& token_endpoint, const CodeGrant& grant, const ProviderLimits& limits = {});

/// Exchanges a refresh token for new tokens (Core 1.0, section 12).
IssuedTokens RefreshTokens(const std::string& token_endpoint, const std::string& client_id,
                           const std::string& refresh_token, const ProviderLimits& limits = {});

/// Revokes a refresh token (RFC 7009).
void RevokeToken(const std::string& revocation_endpoint, const std::string& client_id, const std::string& refresh_token,
                 const ProviderLimits& limits = {});

/// Fetches the provider's keys: the text of a JSON Web Key Set.
std::string FetchKeys(const std::string& jwks_uri, const ProviderLimits& limits = {});

/// Says by how much this machine's clock differs from the provider's, for example "this machine's clock is 12 minutes
/// behind the provider's". Empty when they differ by less than five minutes or the provider's is not known. Both are in
/// seconds since 1970.
std::string ClockFault(std::int64_t now, std::optional<std::int64_t> provider);

}  // namespace orbamira
