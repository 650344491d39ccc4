#pragma once

#include <openssl/cms.h>

#include <ctime>
#include <optional>
#include <string>

#include "platform/posix/openssl.h"

namespace orbamira::test {

/// Somebody who signs manifests of packages, with a certificate that is its own authority.
class PackageSigner {
 public:
  /// Makes the key and the certificate, which is valid from a day ago on for so many days more.
  explicit PackageSigner(const std::string& name, int days = 30);

  /// The certificate as a keyring holds it.
  [[nodiscard]] std::string Certificate() const;

  /// Adds this signer to a message that is not finished; `signed_at` is when it says that it signed, if it says so.
  void AddTo(CMS_ContentInfo* message, std::optional<std::time_t> signed_at) const;

  /// The detached signature of the text, in DER.
  [[nodiscard]] std::string Sign(const std::string& text,
                                 std::optional<std::time_t> signed_at = std::time(nullptr)) const;

 private:
  Owned<EVP_PKEY, EVP_PKEY_free> key_;
  Owned<X509, X509_free> certificate_;
};

/// The detached signature by two who say that they signed at different times.
std::string SignBoth(const std::string& text, const PackageSigner& one, std::time_t one_at, const PackageSigner& other,
                     std::time_t other_at);

}  // namespace orbamira::test
