#include "tools/orba-account/provider.h"

#include <cpr/util.h>
#include <json/value.h>

#include <algorithm>

#include "platform/account/oidc_provider.h"
#include "platform/account/secrets.h"
#include "platform/account/token_signature.h"
#include "tools/orba-account/error.h"

namespace orbamira::packctl {
namespace {

bool Lists(const Json::Value& list, const char* wanted) {
  return list.isArray() && std::find(list.begin(), list.end(), Json::Value(wanted)) != list.end();
}

// A provider need not list everything that it offers.
bool MayOffer(const Json::Value& configuration, const char* list, const char* wanted) {
  return !configuration.isMember(list) || Lists(configuration[list], wanted);
}

bool SignsWithPublicKey(const Json::Value& algorithms) {
  return algorithms.isArray() && std::any_of(algorithms.begin(), algorithms.end(), [](const Json::Value& name) {
           return name.isString() && IsSignatureAlgorithm(name.asString());
         });
}

void CheckOffers(const Json::Value& configuration) {
  if (!MayOffer(configuration, "response_types_supported", "code")) {
    throw SignInError("the provider does not offer the authorization code flow: response_types_supported lacks code");
  }
  if (!MayOffer(configuration, "code_challenge_methods_supported", "S256")) {
    throw SignInError("the provider does not offer PKCE as is needed: code_challenge_methods_supported lacks S256");
  }
  if (!MayOffer(configuration, "token_endpoint_auth_methods_supported", "none")) {
    throw SignInError(
        "the provider takes no client without a secret: token_endpoint_auth_methods_supported lacks none");
  }
  constexpr const char* kAlgorithms = "id_token_signing_alg_values_supported";
  if (configuration.isMember(kAlgorithms) && !SignsWithPublicKey(configuration[kAlgorithms])) {
    throw SignInError(std::string("the provider does not sign identity tokens with a public key: ") + kAlgorithms +
                      " lists none of RS256 to RS512, PS256 to PS512 and ES256 to ES512");
  }
}

}  // namespace

SignInProvider AskProvider(const std::string& issuer) {
  const Json::Value configuration = DiscoverProvider(issuer);
  CheckOffers(configuration);
  return {.issuer = issuer,
          .authorization_endpoint = EndpointOf(configuration, "authorization_endpoint"),
          .token_endpoint = EndpointOf(configuration, "token_endpoint"),
          .jwks_uri = EndpointOf(configuration, "jwks_uri"),
          .offers_refresh = MayOffer(configuration, "scopes_supported", "offline_access"),
          .names_itself = configuration["authorization_response_iss_parameter_supported"] == Json::Value(true),
          .configuration = configuration};
}

SignInSecrets MakeSecrets() { return {.state = RandomText(), .nonce = RandomText(), .code_verifier = RandomText()}; }

std::string AuthorizationAddress(const SignInProvider& provider, const SignInSecrets& secrets,
                                 const std::string& client_id, const std::string& redirect_uri) {
  std::string address = provider.authorization_endpoint;
  address += address.find('?') == std::string::npos ? '?' : '&';
  address += "response_type=code&client_id=" + std::string(cpr::util::urlEncode(client_id));
  address += "&redirect_uri=" + std::string(cpr::util::urlEncode(redirect_uri));
  // A provider sends a refresh token only when the user was asked for consent (Core 1.0, section 11).
  address += provider.offers_refresh ? "&scope=openid%20offline_access&prompt=consent" : "&scope=openid";
  address += "&state=" + secrets.state + "&nonce=" + secrets.nonce;
  address += "&code_challenge=" + ToBase64Url(Digest(secrets.code_verifier, "SHA256")) + "&code_challenge_method=S256";
  return address;
}

}  // namespace orbamira::packctl
