#pragma once

#include <ctime>
#include <string>

#include "platform/posix/trusted_time.h"

namespace orbamira::tools {

/// Refuses a text unless somebody whom the keyring trusts has signed it.
///
/// `signature` is a detached CMS signature (RFC 5652) of exactly these bytes, in DER. Every signer's certificate must
/// lead to one in the keyring, be valid at `time` and not be kept from signing by its key usage; the certificates in
/// between come with the signature or are in the keyring too.
///
/// The keyring is a file of PEM certificates and nothing else. Each is trusted by itself: a maker's root, an
/// intermediate authority or just the signer.
///
/// Returns when it was signed, by the word of its signers, in seconds since 1970; 0 when they do not say, and for a
/// time after `time` at which their certificates are not valid. Throws std::runtime_error with the reason, or
/// std::system_error when the keyring cannot be read.
std::time_t CheckSignature(const std::string& text, const std::string& signature, const std::string& keyring,
                           const TrustedTime& time);

}  // namespace orbamira::tools
