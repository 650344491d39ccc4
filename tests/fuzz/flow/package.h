#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/posix/openssl.h"
#include "tests/fuzz/flow/input.h"

namespace orbamira::fuzz::flow {

/// Signs manifests with a key and a certificate of its own, which is made with it.
class Signer {
 public:
  Signer();

  /// What a keyring holds that trusts it.
  [[nodiscard]] std::string CertificatePem() const;

  /// MANIFEST.sig of this text.
  [[nodiscard]] std::string Sign(const std::string& text) const;

 private:
  Owned<EVP_PKEY, EVP_PKEY_free> key_;
  Owned<X509, X509_free> certificate_;
};

/// How a package comes to its signature.
enum class Signing { kTrusted, kUntrusted, kNone, kDamaged };

/// What a server sends.
struct Package {
  std::string bytes = {};
  std::string digest = {};       ///< SHA-256 as hexadecimal digits, before the last damage
  std::string sent_digest = {};  ///< of `bytes`
};

/// Packs what the input says.
///
/// A line of kPayload and kMembers is a member: its type as in a tar header, its mode, name, target and content, with a
/// tab between them. Four bytes of kDamage are a stage, an offset and a value that the byte there is xored with:
/// of the tar of the payload, its gzip, the package, and the package after its digest was taken.
Package Pack(const Input& input, Signing signing, const Signer& trusted, const Signer& untrusted);

}  // namespace orbamira::fuzz::flow
