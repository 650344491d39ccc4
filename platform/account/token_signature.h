#pragma once

#include <functional>
#include <string>

#include "platform/account/id_token.h"

// The check of a token's signature against the provider's keys. Not installed.
namespace orbamira {

/// Whether an identity token may be signed with this algorithm of RFC 7518. Only those with a public key are accepted:
/// this client shares no secret with the provider, and an unsigned token proves nothing.
[[nodiscard]] bool IsSignatureAlgorithm(const std::string& name);

/// OpenSSL's name for the hash of the algorithm. Only for a name that IsSignatureAlgorithm() accepts.
[[nodiscard]] const char* HashOf(const std::string& algorithm);

/// Fetches the provider's keys, a JSON Web Key Set (RFC 7517).
using KeySource = std::function<std::string()>;

/// Checks that one of the provider's keys for such tokens signed this one. If no key fits, fetches the keys once more,
/// because the provider may have added one just now. Throws ZeloException when the signature is not valid, and whatever
/// `keys` throws.
void CheckSignature(const JsonWebToken& token, const KeySource& keys);

}  // namespace orbamira
