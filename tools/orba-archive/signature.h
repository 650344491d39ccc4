#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace orbamira::tools {

/// The members of a package that carry its signature, and the most bytes that each may have.
constexpr const char* kManifestName = "MANIFEST";
constexpr const char* kSignatureName = "MANIFEST.sig";
constexpr uint64_t kMaxTextSize = 1UL << 20U;
/// The bytes of a line in MANIFEST besides the name: a digest, two blanks and the end of the line.
constexpr uint64_t kManifestLineSize = 67;

/// The contents of a package, as far as the signature needs them.
struct PackageContents {
  std::optional<std::string> manifest;   ///< MANIFEST, if there is one
  std::optional<std::string> signature;  ///< MANIFEST.sig, if there is one
  std::map<std::string, std::string>
      digests;  ///< SHA-256 in lower-case hexadecimal digits of each other member, by name
};

/// Refuses a package unless somebody whom the keyring trusts has signed all of it.
///
/// The package must carry MANIFEST, the SHA-256 and name of each other member in the form of sha256sum(1), and
/// MANIFEST.sig, a detached CMS signature (RFC 5652) of exactly these bytes, in DER. The members must be just those
/// that MANIFEST lists. Every signer's certificate must lead to one in the keyring, be valid now and not be kept from
/// signing by its key usage; the certificates in between come with the signature or are in the keyring too.
///
/// The keyring is a file of PEM certificates and nothing else. Each is trusted by itself: a maker's root, an
/// intermediate authority or just the signer.
///
/// Throws std::runtime_error with the reason, or std::system_error when the keyring cannot be read.
void CheckSignature(const PackageContents& package, const std::string& keyring);

}  // namespace orbamira::tools
