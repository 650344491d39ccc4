#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/account/id_token.h"
#include "platform/account/token_signature.h"

namespace orbamira {

/// What an identity token must be of, and for.
struct TokenExpectation {
  std::string issuer;
  std::string client_id;
  std::string subject = {};  ///< the user; empty: whoever it is
  std::string nonce;
  bool is_renewal = false;   ///< the token came for a refresh token: it may then leave out the nonce (section 12.2)
  std::string access_token;  ///< what came with it; empty when none did
  std::int64_t now = 0;      ///< by this machine's clock, in seconds since 1970
  std::optional<std::int64_t> provider_time = {};  ///< by the provider's, as it told with the token; empty when not
};

/// Checks an identity token that a provider gave (OpenID Connect Core 1.0, sections 3.1.3.7 and 12.2), its signature
/// first.
/// Gives what it says. Throws ZeloException with the first fault, and what `keys` throws.
IdToken CheckIdToken(const std::string& text, const TokenExpectation& expected, const KeySource& keys);

}  // namespace orbamira
