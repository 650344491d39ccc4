#pragma once

#include <string>

namespace orbamira::tools {

/// Refuses the open package file unless somebody whom the keyring trusts vouches for every member of it.
///
/// The package must carry MANIFEST, the SHA-256 and name of each other member in the form of sha256sum(1), and
/// MANIFEST.sig, a detached CMS signature (RFC 5652) of exactly these bytes, in DER. The members must be plain files,
/// just those that MANIFEST lists, once each. Every signer's certificate must lead to one in the keyring and be valid
/// now; the certificates in between come with the signature or are in the keyring too.
///
/// The keyring is a file of PEM certificates and nothing else. Each is trusted by itself: a maker's root, an
/// intermediate authority or just the signer.
///
/// Nothing is unpacked. Throws std::runtime_error with the reason, or std::system_error when a file cannot be read.
void CheckSignature(int package, const std::string& keyring);

}  // namespace orbamira::tools
