#pragma once

#include <json/value.h>

#include <string>

namespace orbamira::packctl {

/// What a sign-in needs to know of a provider.
struct SignInProvider {
  std::string issuer;
  std::string authorization_endpoint;
  std::string token_endpoint;
  std::string jwks_uri;
  bool offers_refresh = false;  ///< the scope for a refresh token may be asked for
  bool names_itself = false;    ///< its answers name their issuer (RFC 9207)
  Json::Value configuration;    ///< all that it says of itself
};

/// Asks the provider for its configuration and sees that it offers what a sign-in needs. Throws SignInError, or
/// orbazelo::ZeloException, naming what is missing.
SignInProvider AskProvider(const std::string& issuer);

/// What one sign-in alone knows, until the answer proves that it belongs to it.
struct SignInSecrets {
  std::string state;
  std::string nonce;
  std::string code_verifier;
};

[[nodiscard]] SignInSecrets MakeSecrets();

/// The address that the user's browser opens (Core 1.0, section 3.1.2.1, and RFC 7636).
[[nodiscard]] std::string AuthorizationAddress(const SignInProvider& provider, const SignInSecrets& secrets,
                                               const std::string& client_id, const std::string& redirect_uri);

}  // namespace orbamira::packctl
