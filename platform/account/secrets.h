#pragma once

#include <string>

// Random texts, digests and their encoding, for what signs a user in. Not installed. All of them throw
// std::runtime_error when OpenSSL fails.
namespace orbamira {

/// Encodes bytes in base64 (RFC 4648, section 4).
[[nodiscard]] std::string ToBase64(const std::string& bytes);

/// Encodes bytes in base64 for URLs, without padding (RFC 4648, section 5).
[[nodiscard]] std::string ToBase64Url(const std::string& bytes);

/// The digest of the text, as bytes. `hash` is OpenSSL's name for the algorithm.
[[nodiscard]] std::string Digest(const std::string& text, const char* hash);

/// 256 random bits as text, for a value that nobody can guess.
[[nodiscard]] std::string RandomText();

}  // namespace orbamira
