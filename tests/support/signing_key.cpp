#include "tests/support/signing_key.h"

#include <json/writer.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "platform/posix/openssl.h"

namespace orbamira::test {
namespace {

using Number = Owned<BIGNUM, BN_free>;

void Check(bool done, const char* what) {
  if (!done) {
    throw std::runtime_error(std::string("OpenSSL: ") + what);
  }
}

std::string BytesOf(const BIGNUM* number, int size) {
  std::string bytes(static_cast<std::size_t>(size), '\0');
  Check(BN_bn2binpad(number, reinterpret_cast<unsigned char*>(bytes.data()), size) == size, "BN_bn2binpad");
  return bytes;
}

// A number of the public key, of so many bytes, or of as many as it needs.
std::string Parameter(const EVP_PKEY* key, const char* name, int size = 0) {
  BIGNUM* number = nullptr;
  Check(EVP_PKEY_get_bn_param(key, name, &number) == 1, name);
  const Number owner(number);
  return EncodeBase64Url(BytesOf(number, size != 0 ? size : BN_num_bytes(number)));
}

int FieldSize(const EVP_PKEY* key) { return (EVP_PKEY_get_bits(key) + 7) / 8; }

std::string CurveName(const EVP_PKEY* key) { return "P-" + std::to_string(EVP_PKEY_get_bits(key)); }

// ECDSA in the form of RFC 7518, section 3.4: both numbers at their full length.
std::string ToPlain(const std::string& der, int field_size) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
  const Owned<ECDSA_SIG, ECDSA_SIG_free> signature(d2i_ECDSA_SIG(nullptr, &bytes, static_cast<long>(der.size())));
  Check(signature != nullptr, "d2i_ECDSA_SIG");
  return BytesOf(ECDSA_SIG_get0_r(signature.get()), field_size) +
         BytesOf(ECDSA_SIG_get0_s(signature.get()), field_size);
}

std::string PemOf(EVP_PKEY* key) {
  const Owned<BIO, BIO_free> bio(BIO_new(BIO_s_mem()));
  Check(PEM_write_bio_PUBKEY(bio.get(), key) == 1, "PEM_write_bio_PUBKEY");
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

std::string Hmac(const std::string& key, const std::string& text) {
  std::string digest(32, '\0');
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()),
       text.size(), reinterpret_cast<unsigned char*>(digest.data()), nullptr);
  return digest;
}

std::string ToText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

}  // namespace

std::string EncodeBase64Url(const std::string& bytes) {
  std::vector<unsigned char> encoded((bytes.size() + 2) / 3 * 4 + 1);
  const int size = EVP_EncodeBlock(encoded.data(), reinterpret_cast<const unsigned char*>(bytes.data()),
                                   static_cast<int>(bytes.size()));
  std::string result(encoded.begin(), encoded.begin() + size);
  std::replace(result.begin(), result.end(), '+', '-');
  std::replace(result.begin(), result.end(), '/', '_');
  result.erase(std::find(result.begin(), result.end(), '='), result.end());
  return result;
}

SigningKey SigningKey::Rsa(const std::string& key_id, unsigned bits) { return {EVP_RSA_gen(bits), key_id}; }

SigningKey SigningKey::Ec(const std::string& key_id, const std::string& curve) {
  return {EVP_EC_gen(curve.c_str()), key_id};
}

SigningKey::SigningKey(evp_pkey_st* key, const std::string& key_id) : key_(key, EVP_PKEY_free) {
  Check(key != nullptr, "no key");
  jwk_["kid"] = key_id;
  if (EVP_PKEY_is_a(key, "RSA") == 1) {
    jwk_["kty"] = "RSA";
    jwk_["n"] = Parameter(key, OSSL_PKEY_PARAM_RSA_N);
    jwk_["e"] = Parameter(key, OSSL_PKEY_PARAM_RSA_E);
  } else {
    jwk_["kty"] = "EC";
    jwk_["crv"] = CurveName(key);
    jwk_["x"] = Parameter(key, OSSL_PKEY_PARAM_EC_PUB_X, FieldSize(key));
    jwk_["y"] = Parameter(key, OSSL_PKEY_PARAM_EC_PUB_Y, FieldSize(key));
  }
}

std::string SigningKey::Sign(const std::string& algorithm, const std::string& text) const {
  const std::string hash = "SHA" + algorithm.substr(2);
  const Owned<EVP_MD_CTX, EVP_MD_CTX_free> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* options = nullptr;
  Check(EVP_DigestSignInit_ex(context.get(), &options, hash.c_str(), nullptr, nullptr, key_.get(), nullptr) == 1,
        "EVP_DigestSignInit_ex");
  if (algorithm.starts_with("PS")) {
    Check(EVP_PKEY_CTX_set_rsa_padding(options, RSA_PKCS1_PSS_PADDING) == 1 &&
              EVP_PKEY_CTX_set_rsa_pss_saltlen(options, RSA_PSS_SALTLEN_DIGEST) == 1,
          "PSS");
  }
  const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
  std::size_t size = 0;
  Check(EVP_DigestSign(context.get(), nullptr, &size, bytes, text.size()) == 1, "EVP_DigestSign");
  std::string signature(size, '\0');
  Check(
      EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size, bytes, text.size()) == 1,
      "EVP_DigestSign");
  signature.resize(size);
  return algorithm.starts_with("ES") ? ToPlain(signature, FieldSize(key_.get())) : signature;
}

std::string SigningKey::MakeToken(const Json::Value& header, const Json::Value& claims) const {
  const std::string algorithm = header["alg"].asString();
  const std::string text = EncodeBase64Url(ToText(header)) + "." + EncodeBase64Url(ToText(claims));
  std::string signature;
  if (algorithm == "HS256") {
    signature = Hmac(PemOf(key_.get()), text);
  } else if (algorithm != "none") {
    signature = Sign(algorithm, text);
  }
  return text + "." + EncodeBase64Url(signature);
}

}  // namespace orbamira::test
