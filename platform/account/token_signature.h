#pragma once

#include <functional>
#include <string>

#include "platform/account/id_token.h"

namespace orbamira {

/// Whether identity tokens may be signed with this algorithm of RFC 7518: those with a public key only. A secret shared
/// with the provider is nothing that this client has, and an unsigned token proves nothing.
[[nodiscard]] bool IsSignatureAlgorithm(const std::string& name);

/// The hash of the algorithm, as OpenSSL calls it. Only for a name that IsSignatureAlgorithm() knows.
[[nodiscard]] const char* HashOf(const std::string& algorithm);

/// Where the provider's keys (a JSON Web Key Set, RFC 7517) are got.
using KeySource = std::function<std::string()>;

/// Sees that the token is signed by a key of the provider's that is meant for it. The keys are asked for again when
/// none of them is: the provider may just have put in a new one. Throws ZeloException when the signature is no proof,
/// and what `keys` throws.
void CheckSignature(const JsonWebToken& token, const KeySource& keys);

}  // namespace orbamira
