#pragma once

#include <string>

namespace orbamira {

/// Bytes in base64 (RFC 4648, section 4).
[[nodiscard]] std::string ToBase64(const std::string& bytes);

/// Bytes in base64 for addresses (RFC 4648, section 5), without padding.
[[nodiscard]] std::string ToBase64Url(const std::string& bytes);

/// The digest of the text, as bytes; the hash as OpenSSL calls it.
[[nodiscard]] std::string Digest(const std::string& text, const char* hash);

/// 256 random bits as text, for what nobody may guess.
[[nodiscard]] std::string RandomText();

}  // namespace orbamira
