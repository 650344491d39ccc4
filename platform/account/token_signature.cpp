#include "platform/account/token_signature.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/json/json_object.h"
#include "platform/orbazelo.h"
#include "platform/posix/openssl.h"

namespace orbamira {
namespace {

using orbazelo::ZeloException;

// An algorithm of RFC 7518 and the keys that it works with.
struct Algorithm {
  std::string_view name;
  const char* hash;
  std::string_view key_type;
  std::string_view curve;
  std::size_t field_size;  // of the curve, in bytes
};

constexpr std::array kAlgorithms = {
    Algorithm{"RS256", "SHA256", "RSA", "", 0},      Algorithm{"RS384", "SHA384", "RSA", "", 0},
    Algorithm{"RS512", "SHA512", "RSA", "", 0},      Algorithm{"PS256", "SHA256", "RSA", "", 0},
    Algorithm{"PS384", "SHA384", "RSA", "", 0},      Algorithm{"PS512", "SHA512", "RSA", "", 0},
    Algorithm{"ES256", "SHA256", "EC", "P-256", 32}, Algorithm{"ES384", "SHA384", "EC", "P-384", 48},
    Algorithm{"ES512", "SHA512", "EC", "P-521", 66},
};

// RFC 7518, section 3.3, sets the least. Nobody has larger keys than the most, and they take long to compute with.
constexpr int kLeastModulusBits = 2048;
constexpr int kMostModulusBits = 16384;
constexpr int kMostExponentBits = 64;

// The longest name of an algorithm in RFC 7518 and its registry. A longer text is not repeated in messages.
constexpr std::size_t kLongestName = 8;

const Algorithm* FindAlgorithm(std::string_view name) {
  const auto* const found = std::find_if(kAlgorithms.begin(), kAlgorithms.end(),
                                         [&](const Algorithm& algorithm) { return algorithm.name == name; });
  return found != kAlgorithms.end() ? found : nullptr;
}

using Number = Owned<BIGNUM, BN_free>;
using PublicKey = Owned<EVP_PKEY, EVP_PKEY_free>;
using Parameters = Owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;

const unsigned char* BytesOf(const std::string& text) { return reinterpret_cast<const unsigned char*>(text.data()); }

Number ToNumber(const std::string& bytes) {
  return Number(BN_bin2bn(BytesOf(bytes), static_cast<int>(bytes.size()), nullptr));
}

PublicKey MakeKey(const char* type, const Parameters& parameters) {
  const Owned<OSSL_PARAM, OSSL_PARAM_free> list(OSSL_PARAM_BLD_to_param(parameters.get()));
  const Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free> context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  EVP_PKEY* key = nullptr;
  if (list && context && EVP_PKEY_fromdata_init(context.get()) == 1) {
    static_cast<void>(EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, list.get()));
  }
  return PublicKey(key);
}

// Empty for a weak key, with which anybody could sign. With an exponent of 1, every text is its own signature.
PublicKey RsaKey(const Json::Value& key) {
  const std::optional<std::string> modulus = DecodeBase64Url(TextOf(key["n"]));
  const std::optional<std::string> exponent = DecodeBase64Url(TextOf(key["e"]));
  if (!modulus || !exponent) {
    return nullptr;
  }
  const Number n = ToNumber(*modulus);
  const Number e = ToNumber(*exponent);
  const Parameters parameters(OSSL_PARAM_BLD_new());
  const bool is_good = n && e && BN_num_bits(n.get()) >= kLeastModulusBits &&
                       BN_num_bits(n.get()) <= kMostModulusBits && BN_is_odd(n.get()) == 1 && BN_is_odd(e.get()) == 1 &&
                       BN_is_one(e.get()) == 0 && BN_num_bits(e.get()) <= kMostExponentBits;
  if (!is_good || !parameters || OSSL_PARAM_BLD_push_BN(parameters.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(parameters.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
    return nullptr;
  }
  return MakeKey("RSA", parameters);
}

// Empty for a point that is not on the curve.
PublicKey EcKey(const Json::Value& key, const Algorithm& algorithm) {
  const std::optional<std::string> x = DecodeBase64Url(TextOf(key["x"]));
  const std::optional<std::string> y = DecodeBase64Url(TextOf(key["y"]));
  const Parameters parameters(OSSL_PARAM_BLD_new());
  if (!x || !y || x->size() != algorithm.field_size || y->size() != algorithm.field_size || !parameters) {
    return nullptr;
  }
  const std::string point = "\x04" + *x + *y;
  const std::string curve(algorithm.curve);
  if (OSSL_PARAM_BLD_push_utf8_string(parameters.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve.c_str(), 0) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(parameters.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size()) != 1) {
    return nullptr;
  }
  return MakeKey("EC", parameters);
}

// Converts an ECDSA signature from two numbers in a row (RFC 7518, section 3.4) to the form that OpenSSL takes. Empty
// when it is malformed.
std::string ToDer(const std::string& plain, std::size_t field_size) {
  const Owned<ECDSA_SIG, ECDSA_SIG_free> signature(ECDSA_SIG_new());
  if (plain.size() != 2 * field_size || !signature) {
    return "";
  }
  Number r = ToNumber(plain.substr(0, field_size));
  Number s = ToNumber(plain.substr(field_size));
  if (!r || !s || ECDSA_SIG_set0(signature.get(), r.get(), s.get()) != 1) {
    return "";
  }
  static_cast<void>(r.release());
  static_cast<void>(s.release());
  std::string der(static_cast<std::size_t>(std::max(0, i2d_ECDSA_SIG(signature.get(), nullptr))), '\0');
  auto* end = reinterpret_cast<unsigned char*>(der.data());
  i2d_ECDSA_SIG(signature.get(), &end);
  return der;
}

bool Verifies(const PublicKey& key, const Algorithm& algorithm, const std::string& text, const std::string& signature) {
  const Owned<EVP_MD_CTX, EVP_MD_CTX_free> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* options = nullptr;
  if (!context ||
      EVP_DigestVerifyInit_ex(context.get(), &options, algorithm.hash, nullptr, nullptr, key.get(), nullptr) != 1) {
    return false;
  }
  if (algorithm.name.starts_with("PS") && (EVP_PKEY_CTX_set_rsa_padding(options, RSA_PKCS1_PSS_PADDING) != 1 ||
                                           EVP_PKEY_CTX_set_rsa_pss_saltlen(options, RSA_PSS_SALTLEN_DIGEST) != 1)) {
    return false;
  }
  return EVP_DigestVerify(context.get(), BytesOf(signature), signature.size(), BytesOf(text), text.size()) == 1;
}

bool MayVerify(const Json::Value& key) {
  const Json::Value& operations = key["key_ops"];
  return operations.isNull() ||
         (operations.isArray() && std::find(operations.begin(), operations.end(), "verify") != operations.end());
}

// Whether the key is for such tokens.
bool Fits(const Json::Value& key, const Algorithm& algorithm, const std::string& key_id) {
  if (!key.isObject() || TextOf(key["kty"]) != algorithm.key_type ||
      (algorithm.key_type == "EC" && TextOf(key["crv"]) != algorithm.curve)) {
    return false;
  }
  const bool for_signatures = !key.isMember("use") || TextOf(key["use"]) == "sig";
  const bool for_algorithm = !key.isMember("alg") || TextOf(key["alg"]) == algorithm.name;
  return for_signatures && for_algorithm && MayVerify(key) && (key_id.empty() || TextOf(key["kid"]) == key_id);
}

std::vector<Json::Value> FittingKeys(const std::string& key_set, const Algorithm& algorithm,
                                     const std::string& key_id) {
  const std::optional<Json::Value> parsed = ParseJsonObject(key_set);
  if (!parsed || !(*parsed)["keys"].isArray()) {
    throw ZeloException("the provider's keys are not a JSON Web Key Set");
  }
  std::vector<Json::Value> fitting;
  const Json::Value& keys = (*parsed)["keys"];
  std::copy_if(keys.begin(), keys.end(), std::back_inserter(fitting),
               [&](const Json::Value& key) { return Fits(key, algorithm, key_id); });
  return fitting;
}

bool IsSignedBy(const JsonWebToken& token, const Json::Value& key, const Algorithm& algorithm) {
  const bool is_rsa = algorithm.key_type == "RSA";
  const PublicKey public_key = is_rsa ? RsaKey(key) : EcKey(key, algorithm);
  const std::string plain = DecodeBase64Url(token.encoded_signature).value_or("");
  const std::string signature = is_rsa ? plain : ToDer(plain, algorithm.field_size);
  return public_key && Verifies(public_key, algorithm, token.encoded_header + "." + token.encoded_claims, signature);
}

}  // namespace

bool IsSignatureAlgorithm(const std::string& name) { return FindAlgorithm(name) != nullptr; }

const char* HashOf(const std::string& algorithm) { return FindAlgorithm(algorithm)->hash; }

void CheckSignature(const JsonWebToken& token, const KeySource& keys) {
  const std::string name = TextOf(token.header["alg"]);
  const Algorithm* const algorithm = FindAlgorithm(name);
  if (algorithm == nullptr) {
    throw ZeloException("the identity token is not signed with a public key of the provider's: its algorithm is " +
                        (name.empty() ? "missing" : (name.size() <= kLongestName ? name : "unknown")));
  }
  // RFC 7515, section 4.1.11: a token with an extension that we do not know must be refused.
  if (token.header.isMember("crit")) {
    throw ZeloException("the identity token needs an extension that is not supported");
  }
  const std::string key_id = TextOf(token.header["kid"]);
  std::vector<Json::Value> fitting = FittingKeys(keys(), *algorithm, key_id);
  if (fitting.empty()) {
    fitting = FittingKeys(keys(), *algorithm, key_id);
  }
  if (fitting.empty()) {
    throw ZeloException("the identity token is signed with a key that is not among the provider's");
  }
  if (std::none_of(fitting.begin(), fitting.end(),
                   [&](const Json::Value& key) { return IsSignedBy(token, key, *algorithm); })) {
    throw ZeloException("the identity token's signature is not by the provider's key: it is forged or damaged");
  }
}

}  // namespace orbamira
