#pragma once

#include <json/value.h>

#include <memory>
#include <string>

struct evp_pkey_st;

namespace orbamira::test {

/// Bytes in base64 for addresses, without padding.
std::string EncodeBase64Url(const std::string& bytes);

/// A key pair that signs JSON Web Tokens (RFC 7518).
class SigningKey {
 public:
  /// New keys; making one of RSA takes a moment.
  static SigningKey Rsa(const std::string& key_id, unsigned bits = 2048);
  static SigningKey Ec(const std::string& key_id, const std::string& curve = "P-256");

  /// The public part as a JSON Web Key: kty, kid and the numbers.
  [[nodiscard]] const Json::Value& jwk() const { return jwk_; }

  /// The signature of RS256, PS384, ES512 and the like.
  [[nodiscard]] std::string Sign(const std::string& algorithm, const std::string& text) const;

  /// The token with this header and these claims, signed by the algorithm that the header names. For HS256, with the
  /// public key's text as the secret; for "none", not at all.
  [[nodiscard]] std::string MakeToken(const Json::Value& header, const Json::Value& claims) const;

 private:
  SigningKey(evp_pkey_st* key, const std::string& key_id);

  std::shared_ptr<evp_pkey_st> key_;
  Json::Value jwk_;
};

}  // namespace orbamira::test
