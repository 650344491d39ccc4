#pragma once

#include <chrono>
#include <string>

namespace orbazelo {

/// How long one request to the provider may take.
struct ProviderLimits {
  std::chrono::milliseconds connect{std::chrono::seconds(10)};
  std::chrono::milliseconds whole{std::chrono::seconds(20)};
};

/// What the provider gave for a refresh token.
struct RefreshedTokens {
  std::string id_token;       ///< as sent, not yet examined
  std::string refresh_token;  ///< empty when the old one goes on
};

/// Asks the OpenID Connect provider `issuer` for new tokens (Discovery 1.0, section 4, and Core 1.0, section 12). The
/// issuer and the token endpoint must be https, or http on the loopback of this machine. Throws ZeloException with the
/// reason for everything that goes wrong; the reason never holds a token.
RefreshedTokens RefreshTokens(const std::string& issuer, const std::string& client_id, const std::string& refresh_token,
                              const ProviderLimits& limits = {});

}  // namespace orbazelo
