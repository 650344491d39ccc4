#include "tools/orba-account/signature.h"

#include <jansson.h>

extern "C" {  // which the library's headers leave to us
#include <jose/jws.h>
}

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/json/json_object.h"
#include "platform/posix/openssl.h"
#include "tools/orba-account/error.h"

namespace orbamira::packctl {
namespace {

// What of a key RFC 7518 ties an algorithm to.
struct Algorithm {
  std::string_view name;
  const char* hash;
  std::string_view key_type;
  std::string_view curve;
};

constexpr std::array kAlgorithms = {
    Algorithm{"RS256", "SHA256", "RSA", ""},     Algorithm{"RS384", "SHA384", "RSA", ""},
    Algorithm{"RS512", "SHA512", "RSA", ""},     Algorithm{"PS256", "SHA256", "RSA", ""},
    Algorithm{"PS384", "SHA384", "RSA", ""},     Algorithm{"PS512", "SHA512", "RSA", ""},
    Algorithm{"ES256", "SHA256", "EC", "P-256"}, Algorithm{"ES384", "SHA384", "EC", "P-384"},
    Algorithm{"ES512", "SHA512", "EC", "P-521"},
};

// RFC 7518, section 3.3: 2048 bits, in base64url without padding.
constexpr std::size_t kLeastModulus = (256 * 4 + 2) / 3;

// Of an algorithm in RFC 7518 and its registry; what is longer may be anything.
constexpr std::size_t kLongestName = 8;

const Algorithm* FindAlgorithm(std::string_view name) {
  const auto* const found = std::find_if(kAlgorithms.begin(), kAlgorithms.end(),
                                         [&](const Algorithm& algorithm) { return algorithm.name == name; });
  return found != kAlgorithms.end() ? found : nullptr;
}

std::string TextOf(const Json::Value& object, const char* name) {
  return object[name].isString() ? object[name].asString() : "";
}

using JsonOwner = tools::Owned<json_t, json_decref>;

// The public part of a key in the library's own form, with nothing in it that the key set might smuggle in.
JsonOwner PublicKey(const Json::Value& key, const Algorithm& algorithm) {
  const std::vector<const char*> members = algorithm.key_type == "RSA"
                                               ? std::vector<const char*>{"kty", "n", "e"}
                                               : std::vector<const char*>{"kty", "crv", "x", "y"};
  JsonOwner result(json_object());
  for (const char* const member : members) {
    json_object_set_new(result.get(), member, json_string(TextOf(key, member).c_str()));
  }
  return result;
}

bool MayVerify(const Json::Value& key) {
  const Json::Value& operations = key["key_ops"];
  return operations.isNull() ||
         (operations.isArray() && std::find(operations.begin(), operations.end(), "verify") != operations.end());
}

// Whether the provider means this key for such a token.
bool Fits(const Json::Value& key, const Algorithm& algorithm, const std::string& key_id) {
  if (!key.isObject() || TextOf(key, "kty") != algorithm.key_type ||
      (algorithm.key_type == "EC" && TextOf(key, "crv") != algorithm.curve) ||
      (algorithm.key_type == "RSA" && TextOf(key, "n").size() < kLeastModulus)) {
    return false;
  }
  const bool for_signatures = !key.isMember("use") || TextOf(key, "use") == "sig";
  const bool for_algorithm = !key.isMember("alg") || TextOf(key, "alg") == algorithm.name;
  return for_signatures && for_algorithm && MayVerify(key) && (key_id.empty() || TextOf(key, "kid") == key_id);
}

std::vector<Json::Value> FittingKeys(const std::string& key_set, const Algorithm& algorithm,
                                     const std::string& key_id) {
  const std::optional<Json::Value> parsed = orbazelo::ParseJsonObject(key_set);
  if (!parsed || !(*parsed)["keys"].isArray()) {
    throw SignInError("the provider's keys are not a JSON Web Key Set");
  }
  std::vector<Json::Value> fitting;
  const Json::Value& keys = (*parsed)["keys"];
  std::copy_if(keys.begin(), keys.end(), std::back_inserter(fitting),
               [&](const Json::Value& key) { return Fits(key, algorithm, key_id); });
  return fitting;
}

bool IsSignedBy(const orbazelo::JsonWebToken& token, const Json::Value& key, const Algorithm& algorithm) {
  const JsonOwner signed_object(json_object());
  json_object_set_new(signed_object.get(), "protected", json_string(token.encoded_header.c_str()));
  json_object_set_new(signed_object.get(), "payload", json_string(token.encoded_claims.c_str()));
  json_object_set_new(signed_object.get(), "signature", json_string(token.encoded_signature.c_str()));
  return jose_jws_ver(nullptr, signed_object.get(), nullptr, PublicKey(key, algorithm).get(), false);
}

}  // namespace

bool IsSignatureAlgorithm(const std::string& name) { return FindAlgorithm(name) != nullptr; }

const char* HashOf(const std::string& algorithm) { return FindAlgorithm(algorithm)->hash; }

void CheckSignature(const orbazelo::JsonWebToken& token, const KeySource& keys) {
  const std::string name = TextOf(token.header, "alg");
  const Algorithm* const algorithm = FindAlgorithm(name);
  if (algorithm == nullptr) {
    throw SignInError("the identity token is not signed with a public key of the provider's: its algorithm is " +
                      (name.empty() ? "missing" : (name.size() <= kLongestName ? name : "unknown")));
  }
  // RFC 7515, section 4.1.11: what must be understood and is not.
  if (token.header.isMember("crit")) {
    throw SignInError("the identity token asks for an extension that is not known here");
  }
  const std::string key_id = TextOf(token.header, "kid");
  std::vector<Json::Value> fitting = FittingKeys(keys(), *algorithm, key_id);
  if (fitting.empty()) {
    fitting = FittingKeys(keys(), *algorithm, key_id);
  }
  if (fitting.empty()) {
    throw SignInError("the identity token is signed with a key that is not among the provider's");
  }
  if (std::none_of(fitting.begin(), fitting.end(),
                   [&](const Json::Value& key) { return IsSignedBy(token, key, *algorithm); })) {
    throw SignInError("the identity token's signature is not by the provider's key: it is forged or damaged");
  }
}

}  // namespace orbamira::packctl
