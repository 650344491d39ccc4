#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/posix/openssl.h"

namespace orbamira::tools {

/// Computes a SHA-256 piece by piece. Errors are std::runtime_error.
class Sha256 {
 public:
  static constexpr size_t kSize = 32;  ///< bytes of a digest

  Sha256();

  void Add(std::span<const uint8_t> bytes);

  /// The digest of all that was added, in lower-case hexadecimal digits. Nothing can be added afterwards.
  [[nodiscard]] std::string Finish();

 private:
  Owned<EVP_MD_CTX, EVP_MD_CTX_free> context_;
};

}  // namespace orbamira::tools
