#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/account/id_token.h"
#include "tools/orba-account/signature.h"

namespace orbamira::packctl {

/// What an identity token must be of, and for.
struct TokenExpectation {
  std::string issuer;
  std::string client_id;
  std::string nonce;
  std::string access_token;                        ///< what came with it; empty when none did
  std::int64_t now = 0;                            ///< by this machine's clock, in seconds since 1970
  std::optional<std::int64_t> provider_time = {};  ///< by the provider's, as it told with the token; empty when not
};

/// Checks the identity token that a sign-in brought (OpenID Connect Core 1.0, section 3.1.3.7), its signature first.
/// Gives what it says. Throws SignInError with the first fault, and what `keys` throws.
orbazelo::IdToken CheckIdToken(const std::string& text, const TokenExpectation& expected, const KeySource& keys);

}  // namespace orbamira::packctl
