#include <gmock/gmock.h>

#include <array>
#include <functional>
#include <stdexcept>

#include "platform/account/secrets.h"
#include "platform/account/token_check.h"
#include "platform/account/token_signature.h"
#include "platform/orbazelo.h"
#include "tests/support/signing_key.h"

namespace orbamira {
namespace {

using orbazelo::ZeloException;
using test::SigningKey;

constexpr std::int64_t kNow = 1'800'000'000;
constexpr const char* kForged = "the identity token's signature is not by the provider's key: it is forged or damaged";
constexpr const char* kUnknownKey = "the identity token is signed with a key that is not among the provider's";

class AccountTokenTest : public testing::Test {
 protected:
  AccountTokenTest() {
    claims_["iss"] = expected_.issuer;
    claims_["sub"] = "user";
    claims_["aud"] = expected_.client_id;
    claims_["iat"] = Json::Int64{kNow - 10};
    claims_["exp"] = Json::Int64{kNow + 3600};
    claims_["nonce"] = expected_.nonce;
    header_["alg"] = "ES256";
    header_["kid"] = "key-1";
    Show({key_.jwk()});
  }

  void Show(const std::vector<Json::Value>& keys) {
    Json::Value set;
    set["keys"] = Json::arrayValue;
    for (const Json::Value& key : keys) {
      set["keys"].append(key);
    }
    key_set_ = set.toStyledString();
  }

  IdToken Check(const std::string& token) {
    return CheckIdToken(token, expected_, [this] {
      ++asked_for_keys_;
      return key_set_;
    });
  }

  [[nodiscard]] std::string Token() const { return key_.MakeToken(header_, claims_); }

  std::string FailureOf(const std::string& token) {
    try {
      Check(token);
    } catch (const ZeloException& error) {
      return error.what();
    }
    return "";
  }

  std::string Failure() { return FailureOf(Token()); }

  /// The failure with one claim as it should not be.
  std::string FailureWith(const char* claim, const Json::Value& value) {
    Json::Value right = claims_;
    claims_[claim] = value;
    std::string failure = Failure();
    claims_ = right;
    return failure;
  }

  std::string FailureWithout(const char* claim) {
    Json::Value right = claims_;
    claims_.removeMember(claim);
    std::string failure = Failure();
    claims_ = right;
    return failure;
  }

  TokenExpectation expected_{.issuer = "https://accounts.example",
                             .client_id = "client",
                             .nonce = "nonce",
                             .access_token = "access",
                             .now = kNow};
  Json::Value header_;
  Json::Value claims_;
  SigningKey key_ = SigningKey::Ec("key-1");
  std::string key_set_;
  int asked_for_keys_ = 0;
};

TEST_F(AccountTokenTest, CheckGivesWhatTheTokenSays) {
  const IdToken token = Check(Token());
  EXPECT_EQ(token.issuer, "https://accounts.example");
  EXPECT_EQ(token.subject, "user");
  EXPECT_EQ(token.expires, kNow + 3600);
  EXPECT_EQ(asked_for_keys_, 1);
}

TEST_F(AccountTokenTest, CheckTakesEachAlgorithmOfRsa) {
  key_ = SigningKey::Rsa("key-1");
  Show({key_.jwk()});
  for (const char* algorithm : {"RS256", "RS384", "RS512", "PS256", "PS384", "PS512"}) {
    header_["alg"] = algorithm;
    EXPECT_EQ(Failure(), "") << algorithm;
  }
}

TEST_F(AccountTokenTest, CheckTakesEachAlgorithmOfEllipticCurves) {
  for (const auto& [algorithm, curve] : {std::pair{"ES256", "P-256"}, {"ES384", "P-384"}, {"ES512", "P-521"}}) {
    key_ = SigningKey::Ec("key-1", curve);
    Show({key_.jwk()});
    header_["alg"] = algorithm;
    EXPECT_EQ(Failure(), "") << algorithm;
  }
}

// The same two numbers in more bytes than the curve's.
TEST_F(AccountTokenTest, CheckRefusesAnEllipticSignatureOfAnotherLength) {
  const std::string token = Token();
  const auto begin = token.rfind('.') + 1;
  std::string signature = DecodeBase64Url(token.substr(begin)).value_or("");
  ASSERT_EQ(signature.size(), 64U);
  signature.insert(32, 1, '\0');
  EXPECT_EQ(FailureOf(token.substr(0, begin) + test::EncodeBase64Url(signature)), kForged);
}

TEST_F(AccountTokenTest, CheckRefusesWhatIsSignedWithNoPublicKey) {
  constexpr const char* kFront =
      "the identity token is not signed with a public key of the provider's: its algorithm is ";
  header_["alg"] = "none";
  EXPECT_EQ(FailureOf(Token() + "AA"), std::string(kFront) + "none");
  header_["alg"] = "HS256";  // with the public key as the secret, which everybody knows
  EXPECT_EQ(Failure(), std::string(kFront) + "HS256");
  const auto failure_with = [this](const Json::Value& algorithm) {
    Json::Value header = header_;
    header["alg"] = algorithm;
    const std::string token = Token();
    return FailureOf(test::EncodeBase64Url(header.toStyledString()) + token.substr(token.find('.')));
  };
  EXPECT_EQ(failure_with("ES256K"), std::string(kFront) + "ES256K");
  EXPECT_EQ(failure_with("es256"), std::string(kFront) + "es256");
  EXPECT_EQ(failure_with(Json::Value()), std::string(kFront) + "missing");
  EXPECT_EQ(failure_with(7), std::string(kFront) + "missing");
  EXPECT_EQ(failure_with("12345678"), std::string(kFront) + "12345678");
  EXPECT_EQ(failure_with("123456789"), std::string(kFront) + "unknown");
  EXPECT_EQ(asked_for_keys_, 0);
}

TEST(AccountSignatureTest, KnowsTheAlgorithmsOfPublicKeysAlone) {
  EXPECT_TRUE(IsSignatureAlgorithm("ES256"));
  EXPECT_FALSE(IsSignatureAlgorithm("HS256"));
  EXPECT_FALSE(IsSignatureAlgorithm("none"));
}

TEST_F(AccountTokenTest, CheckRefusesATokenThatIsNone) {
  const std::string token = Token();
  for (const std::string& text : {std::string(), std::string("x"), token.substr(0, token.rfind('.')), token + ".x",
                                  "." + token, token.substr(0, token.size() - 1) + "*"}) {
    EXPECT_EQ(FailureOf(text), "the provider gave no well-formed identity token") << text;
  }
}

TEST_F(AccountTokenTest, CheckRefusesAnyChangeOfWhatIsSigned) {
  const std::string token = Token();
  const std::string header = token.substr(0, token.find('.'));
  const std::string signature = token.substr(token.rfind('.'));
  claims_["sub"] = "somebody else";
  const std::string other = Token();
  const std::string other_claims = other.substr(header.size(), other.rfind('.') - header.size());
  EXPECT_EQ(FailureOf(header + other_claims + signature), kForged);
  header_["typ"] = "JWT";
  const std::string other_header = Token().substr(0, Token().find('.'));
  EXPECT_EQ(FailureOf(other_header + token.substr(token.find('.'))), kForged);
}

TEST_F(AccountTokenTest, CheckRefusesASignatureOfAnotherLength) {
  const std::string token = Token();
  EXPECT_EQ(FailureOf(token.substr(0, token.size() - 4)), kForged);
  EXPECT_EQ(FailureOf(token + "AAAA"), kForged);
  EXPECT_EQ(FailureOf(token.substr(0, token.rfind('.') + 1) + std::string(86, 'A')), kForged);
}

TEST_F(AccountTokenTest, CheckRefusesAnotherKeyOfTheSameName) {
  Show({SigningKey::Ec("key-1").jwk()});
  EXPECT_EQ(Failure(), kForged);
}

TEST_F(AccountTokenTest, CheckFindsTheKeyByItsName) {
  Show({SigningKey::Ec("key-0").jwk(), key_.jwk(), SigningKey::Ec("key-2").jwk()});
  EXPECT_EQ(Failure(), "");
  header_["kid"] = "key-2";
  EXPECT_EQ(Failure(), kForged);
}

TEST_F(AccountTokenTest, CheckTriesEveryKeyForATokenThatNamesNone) {
  header_.removeMember("kid");
  Show({SigningKey::Ec("key-0").jwk(), key_.jwk()});
  EXPECT_EQ(Failure(), "");
  Show({SigningKey::Ec("key-0").jwk()});
  EXPECT_EQ(Failure(), kForged);
}

TEST_F(AccountTokenTest, CheckAsksForTheKeysOnceMoreWhenTheKeyIsUnknown) {
  header_["kid"] = "key-2";
  EXPECT_EQ(Failure(), kUnknownKey);
  EXPECT_EQ(asked_for_keys_, 2);
}

TEST_F(AccountTokenTest, CheckUsesNoKeyThatIsForSomethingElse) {
  const std::vector<std::pair<const char*, Json::Value>> purposes = {{"use", "enc"},
                                                                     {"use", 7},
                                                                     {"alg", "ES384"},
                                                                     {"alg", "RS256"},
                                                                     {"kty", "RSA"},
                                                                     {"kty", "oct"},
                                                                     {"key_ops", "sign"},
                                                                     {"crv", "P-384"},
                                                                     {"kty", 7},
                                                                     {"kid", 7},
                                                                     {"key_ops", Json::arrayValue}};
  for (const auto& [member, value] : purposes) {
    Json::Value key = key_.jwk();
    key[member] = value;
    Show({key});
    EXPECT_EQ(Failure(), kUnknownKey) << member << " " << value.toStyledString();
  }
  Json::Value key = key_.jwk();
  key["use"] = "sig";
  key["alg"] = "ES256";
  key["key_ops"].append("verify");
  Show({"no object", key});
  EXPECT_EQ(Failure(), "");
}

TEST_F(AccountTokenTest, CheckUsesNoKeyOfAnotherKindThanTheAlgorithm) {
  const SigningKey rsa = SigningKey::Rsa("key-1");
  Show({rsa.jwk()});
  EXPECT_EQ(Failure(), kUnknownKey);
}

TEST_F(AccountTokenTest, CheckUsesNoRsaKeyUnder2048Bits) {
  key_ = SigningKey::Rsa("key-1", 2040);
  header_["alg"] = "RS256";
  Show({key_.jwk()});
  EXPECT_EQ(Failure(), kForged);
}

TEST_F(AccountTokenTest, CheckUsesNoKeyThatIsDamaged) {
  for (const char* member : {"x", "y"}) {
    for (const Json::Value& value :
         {Json::Value(), Json::Value(""), Json::Value("*"), Json::Value(7), Json::Value("AAAA")}) {
      Json::Value key = key_.jwk();
      key[member] = value;
      Show({key});
      EXPECT_EQ(Failure(), kForged) << member << " " << value.toStyledString();
    }
  }
  key_ = SigningKey::Rsa("key-1");
  header_["alg"] = "RS256";
  for (const Json::Value& value : {Json::Value(), Json::Value(""), Json::Value("*"), Json::Value("AQ")}) {
    Json::Value key = key_.jwk();
    key["e"] = value;
    Show({key});
    EXPECT_EQ(Failure(), kForged) << value.toStyledString();
  }
}

// A header may contain a key, or say where to get one: a signature by that key proves nothing.
TEST_F(AccountTokenTest, CheckUsesNoKeyOfTheTokensOwn) {
  const SigningKey attackers = SigningKey::Ec("key-1");
  header_["jwk"] = attackers.jwk();
  header_["jku"] = "https://attacker.example/keys";
  EXPECT_EQ(FailureOf(attackers.MakeToken(header_, claims_)), kForged);
}

TEST_F(AccountTokenTest, CheckRefusesAnExtensionThatMustBeUnderstood) {
  header_["crit"].append("b64");
  header_["b64"] = false;
  EXPECT_EQ(Failure(), "the identity token needs an extension that is not supported");
}

TEST_F(AccountTokenTest, CheckRefusesKeysThatAreNoKeySet) {
  for (const std::string text : {"", "<html>", "[]", "{}", R"({"keys": {}})", R"({"keys": 7})"}) {
    key_set_ = text;
    EXPECT_EQ(Failure(), "the provider's keys are not a JSON Web Key Set") << text;
  }
  Show({});
  EXPECT_EQ(Failure(), kUnknownKey);
}

TEST_F(AccountTokenTest, CheckPassesOnWhyTheKeysCannotBeHad) {
  EXPECT_THROW(CheckIdToken(Token(), expected_, []() -> std::string { throw std::logic_error("down"); }),
               std::logic_error);
}

TEST_F(AccountTokenTest, CheckRefusesAnotherIssuer) {
  for (const Json::Value& value : {Json::Value("https://accounts.example/"), Json::Value(), Json::Value(7)}) {
    EXPECT_EQ(FailureWith("iss", value), "the identity token is from another issuer than https://accounts.example");
  }
}

TEST_F(AccountTokenTest, CheckRefusesAnotherClient) {
  Json::Value others;
  others.append("other");
  for (const Json::Value& value : {Json::Value("other"), Json::Value(), Json::Value(7), others}) {
    EXPECT_EQ(FailureWith("aud", value), "the identity token is for another client than client");
  }
}

TEST_F(AccountTokenTest, CheckWantsToKnowForWhomOfSeveralTheTokenIs) {
  constexpr const char* kOther = "the identity token was issued to another client than client";
  claims_["aud"] = Json::arrayValue;
  claims_["aud"].append("client");
  EXPECT_EQ(Failure(), "");
  claims_["aud"].append("other");
  EXPECT_EQ(Failure(), kOther);
  EXPECT_EQ(FailureWith("azp", "other"), kOther);
  EXPECT_EQ(FailureWith("azp", 7), kOther);
  EXPECT_EQ(FailureWith("azp", "client"), "");
  claims_["aud"] = "client";
  EXPECT_EQ(FailureWith("azp", "other"), kOther);
}

TEST_F(AccountTokenTest, CheckRefusesATokenOfAnotherSignIn) {
  for (const Json::Value& value : {Json::Value("other"), Json::Value(), Json::Value(""), Json::Value(7)}) {
    EXPECT_EQ(FailureWith("nonce", value), "the identity token is for another sign-in: its nonce does not match");
  }
}

TEST_F(AccountTokenTest, CheckRefusesATokenOfNobody) {
  for (const Json::Value& value :
       {Json::Value(), Json::Value(""), Json::Value(7), Json::Value(std::string(256, 'u'))}) {
    EXPECT_EQ(FailureWith("sub", value), "the identity token names no user");
  }
  EXPECT_EQ(FailureWith("sub", std::string(255, 'u')), "");
}

TEST_F(AccountTokenTest, CheckRefusesTheAccessTokenOfAnother) {
  const auto half_of = [](const std::string& token, const char* hash) {
    const std::string digest = Digest(token, hash);
    return test::EncodeBase64Url(digest.substr(0, digest.size() / 2));
  };
  constexpr const char* kOther = "the identity token does not belong to the access token that came with it";
  EXPECT_EQ(FailureWith("at_hash", half_of("access", "SHA256")), "");
  EXPECT_EQ(FailureWith("at_hash", half_of("other", "SHA256")), kOther);
  EXPECT_EQ(FailureWith("at_hash", half_of("access", "SHA384")), kOther);
  EXPECT_EQ(FailureWith("at_hash", 7), kOther);
  key_ = SigningKey::Ec("key-1", "P-384");
  header_["alg"] = "ES384";
  Show({key_.jwk()});
  EXPECT_EQ(FailureWith("at_hash", half_of("access", "SHA384")), "");
}

TEST_F(AccountTokenTest, CheckNeedsTheTimes) {
  constexpr const char* kMissing = "the identity token does not say when it was issued and when it expires";
  for (const char* claim : {"iat", "exp"}) {
    EXPECT_EQ(FailureWithout(claim), kMissing);
    EXPECT_EQ(FailureWith(claim, "1800000000"), kMissing);
    EXPECT_EQ(FailureWith(claim, -5), kMissing);
  }
}

TEST_F(AccountTokenTest, CheckRefusesATokenThatHasExpired) {
  EXPECT_EQ(FailureWith("exp", Json::Int64{kNow}), "the provider's identity token has expired already");
  EXPECT_EQ(FailureWith("exp", Json::Int64{kNow + 1}), "");
}

TEST_F(AccountTokenTest, CheckRefusesATokenOfTheFuture) {
  EXPECT_EQ(FailureWith("iat", Json::Int64{kNow + 301}), "the provider's identity token was issued in the future");
  EXPECT_EQ(FailureWith("iat", Json::Int64{kNow + 300}), "");
}

TEST_F(AccountTokenTest, CheckTellsAWrongClockFromAnExpiredToken) {
  expected_.provider_time = kNow - 3600;
  EXPECT_EQ(FailureWith("exp", Json::Int64{kNow - 60}),
            "this machine's clock is 60 minutes ahead of the provider's: set the clock and sign in again");
  EXPECT_EQ(Failure(), "");  // no difference matters as long as the token is good by our clock
  expected_.provider_time = kNow + 7200;
  EXPECT_EQ(FailureWith("iat", Json::Int64{kNow + 7000}),
            "this machine's clock is 120 minutes behind the provider's: set the clock and sign in again");
  expected_.provider_time = kNow - 299;
  EXPECT_EQ(FailureWith("exp", Json::Int64{kNow - 60}), "the provider's identity token has expired already");
}

TEST(AccountSecretsTest, EncodesAsAddressesNeedIt) {
  EXPECT_EQ(ToBase64Url(""), "");
  EXPECT_EQ(ToBase64Url("\xfb\xff"), "-_8");
  EXPECT_EQ(ToBase64("\xfb\xff"), "+/8=");
}

// The example of FIPS 180.
TEST(AccountSecretsTest, DigestIsThatOfTheStandard) {
  EXPECT_EQ(ToBase64(Digest("abc", "SHA256")), "ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=");
  EXPECT_THROW(static_cast<void>(Digest("abc", "SHA0")), std::runtime_error);
}

TEST(AccountSecretsTest, NoTwoAreAlike) {
  EXPECT_EQ(RandomText().size(), 43U);
  EXPECT_NE(RandomText(), RandomText());
}

// With an exponent of 1 anybody can sign, with an even one nobody.
TEST_F(AccountTokenTest, CheckRefusesAWeakKeyOfRsa) {
  key_ = SigningKey::Rsa("key-1");
  header_["alg"] = "RS256";
  for (const char* exponent : {"AQ", "AAAB", "BA", "AA", "", "!", "AQAAAAAAAAAB"}) {
    Json::Value weak = key_.jwk();
    weak["e"] = exponent;
    Show({weak});
    EXPECT_EQ(Failure(), kForged) << exponent;
  }
  key_ = SigningKey::Rsa("key-1", 1024);
  Json::Value padded = key_.jwk();
  padded["n"] = std::string(172, 'A') + padded["n"].asString();  // looks as long as one of 2048 bits
  Show({padded});
  EXPECT_EQ(Failure(), kForged);
}

TEST_F(AccountTokenTest, CheckRefusesAForgeryByAnExponentOfOne) {
  constexpr std::size_t kBytes = 256;
  Json::Value key;
  key["kty"] = "RSA";
  key["kid"] = "key-1";
  key["n"] = test::EncodeBase64Url(std::string(kBytes, '\xff'));
  key["e"] = "AQ";
  Show({key});
  header_["alg"] = "RS256";
  const auto encoded = [](const Json::Value& value) { return test::EncodeBase64Url(value.toStyledString()); };
  const std::string text = encoded(header_) + "." + encoded(claims_);
  constexpr std::array<unsigned char, 19> kSha256Front = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                                          0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
  const std::string digest = std::string(kSha256Front.begin(), kSha256Front.end()) + Digest(text, "SHA256");
  const std::string front{'\0', '\1'};
  const std::string signature = front + std::string(kBytes - 3 - digest.size(), '\xff') + '\0' + digest;
  EXPECT_EQ(FailureOf(text + "." + test::EncodeBase64Url(signature)), kForged);
}

TEST_F(AccountTokenTest, CheckRefusesATokenThatMayNotBeUsedYet) {
  EXPECT_EQ(FailureWith("nbf", Json::Int64{kNow + 3600}), "the provider's identity token was issued in the future");
  EXPECT_EQ(FailureWith("nbf", Json::Int64{kNow + 301}), "the provider's identity token was issued in the future");
  EXPECT_EQ(FailureWith("nbf", Json::Int64{kNow + 300}), "");
  EXPECT_EQ(FailureWith("nbf", Json::Int64{kNow - 60}), "");
}

}  // namespace
}  // namespace orbamira
