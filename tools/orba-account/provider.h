#pragma once

#include <json/value.h>

#include <string>

namespace orbamira::packctl {

/// What a sign-in needs to know about a provider.
struct SignInProvider {
  std::string issuer;
  std::string authorization_endpoint;
  std::string token_endpoint;
  std::string jwks_uri;
  bool offers_refresh = false;  ///< it offers the scope for a refresh token
  bool names_itself = false;    ///< its answers name their issuer (RFC 9207)
  Json::Value configuration;    ///< its whole configuration
};

/// Fetches the provider's configuration and checks that it offers what a sign-in needs. Throws SignInError or
/// orbazelo::ZeloException, which say what is missing.
SignInProvider AskProvider(const std::string& issuer);

/// The secrets of one sign-in. An answer that knows the state belongs to it.
struct SignInSecrets {
  std::string state;
  std::string nonce;
  std::string code_verifier;
};

/// Makes random secrets.
[[nodiscard]] SignInSecrets MakeSecrets();

/// The address for the user's browser to open (Core 1.0, section 3.1.2.1, and RFC 7636).
[[nodiscard]] std::string AuthorizationAddress(const SignInProvider& provider, const SignInSecrets& secrets,
                                               const std::string& client_id, const std::string& redirect_uri);

}  // namespace orbamira::packctl
