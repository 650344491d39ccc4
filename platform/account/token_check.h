#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/account/id_token.h"
#include "platform/account/token_signature.h"

// The check of an identity token: signature, issuer, audience, times. Not installed.
namespace orbamira {

/// What an identity token must say to be accepted.
struct TokenExpectation {
  std::string issuer;
  std::string client_id;
  std::string subject = {};  ///< the user; empty accepts any user
  std::string nonce;
  bool is_renewal = false;   ///< the token replaces an older one: it may then lack the nonce (section 12.2)
  std::string access_token;  ///< the one that came with it; empty when none did
  std::int64_t now = 0;      ///< this machine's time, in seconds since 1970
  std::optional<std::int64_t> provider_time = {};  ///< the provider's time; empty when it did not send it
};

/// Checks an identity token (OpenID Connect Core 1.0, sections 3.1.3.7 and 12.2), its signature first, and returns its
/// claims. Throws ZeloException for the first fault, and whatever `keys` throws.
IdToken CheckIdToken(const std::string& text, const TokenExpectation& expected, const KeySource& keys);

}  // namespace orbamira
