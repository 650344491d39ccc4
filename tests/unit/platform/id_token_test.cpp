#include "platform/account/id_token.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/oidc_provider.h"

namespace orbamira {
namespace {

using test::MakeIdToken;
using testing::ElementsAre;
using testing::IsEmpty;

// The parts of a token in base64 for URLs.
const char* const kHead = "eyJhbGciOiJub25lIn0";     // {"alg":"none"}
const char* const kClaims = "eyJleHAiOjEyMzQ1Njd9";  // {"exp":1234567}
const char* const kSignature = "c2ln";

std::string Join(const std::string& head, const std::string& claims, const std::string& signature) {
  return head + "." + claims + "." + signature;
}

std::int64_t ExpiryOf(const Json::Value& expiry) {
  Json::Value claims(Json::objectValue);
  claims["exp"] = expiry;
  return ParseIdToken(MakeIdToken(claims)).value().expires;
}

TEST(IdTokenTest, ParseIdTokenReadsTheClaims) {
  Json::Value claims;
  claims["iss"] = "https://issuer.example";
  claims["sub"] = "user";
  claims["aud"] = "client";
  claims["exp"] = 1'700'000'000;
  const IdToken token = ParseIdToken(MakeIdToken(claims)).value();
  EXPECT_EQ(token.issuer, "https://issuer.example");
  EXPECT_EQ(token.subject, "user");
  EXPECT_THAT(token.audience, ElementsAre("client"));
  EXPECT_EQ(token.expires, 1'700'000'000);
}

TEST(IdTokenTest, ParseIdTokenReadsTextsOfAnyLength) {
  for (std::size_t length = 1; length < 20; ++length) {
    Json::Value claims;
    claims["sub"] = std::string(length, '~') + "?>";
    EXPECT_EQ(ParseIdToken(MakeIdToken(claims)).value().subject, claims["sub"].asString());
  }
}

TEST(IdTokenTest, ParseIdTokenTakesAKnownToken) {
  EXPECT_EQ(ParseIdToken(Join(kHead, kClaims, kSignature)).value().expires, 1234567);
}

TEST(IdTokenTest, ParseIdTokenTakesMissingClaimsForEmpty) {
  const IdToken token = ParseIdToken(MakeIdToken(Json::objectValue)).value();
  EXPECT_EQ(token.issuer, "");
  EXPECT_EQ(token.subject, "");
  EXPECT_THAT(token.audience, IsEmpty());
  EXPECT_EQ(token.expires, 0);
}

TEST(IdTokenTest, ParseIdTokenReadsAListOfAudiences) {
  Json::Value claims;
  claims["aud"].append("one");
  claims["aud"].append("two");
  const IdToken token = ParseIdToken(MakeIdToken(claims)).value();
  EXPECT_TRUE(token.IsFor("one"));
  EXPECT_TRUE(token.IsFor("two"));
  EXPECT_FALSE(token.IsFor("three"));
}

TEST(IdTokenTest, ParseIdTokenReadsAnyNumberAsExpiry) {
  EXPECT_EQ(ExpiryOf(1), 1);
  EXPECT_EQ(ExpiryOf(99.9), 99);
  EXPECT_EQ(ExpiryOf(253'402'300'799), 253'402'300'799);
}

TEST(IdTokenTest, ParseIdTokenTakesAnUnreadableExpiryForExpired) {
  EXPECT_EQ(ExpiryOf("1700000000"), 0);
  EXPECT_EQ(ExpiryOf(-1), 0);
  EXPECT_EQ(ExpiryOf(1e300), 0);
  EXPECT_EQ(ExpiryOf(Json::nullValue), 0);
  EXPECT_EQ(ExpiryOf(Json::arrayValue), 0);
  EXPECT_EQ(ExpiryOf(true), 0);
}

TEST(IdTokenTest, ParseIdTokenRefusesWhatIsNotThreeParts) {
  EXPECT_FALSE(ParseIdToken(""));
  EXPECT_FALSE(ParseIdToken("."));
  EXPECT_FALSE(ParseIdToken(".."));
  EXPECT_FALSE(ParseIdToken(kClaims));
  EXPECT_FALSE(ParseIdToken(std::string(kHead) + "." + kClaims));
  EXPECT_FALSE(ParseIdToken(Join(kHead, kClaims, "")));
  EXPECT_FALSE(ParseIdToken(Join("", kClaims, kSignature)));
  EXPECT_FALSE(ParseIdToken(Join(kHead, kClaims, kSignature) + "." + kSignature));
}

TEST(IdTokenTest, ParseIdTokenRefusesATokenOverTheLimit) {
  const std::string front = Join(kHead, kClaims, "");
  EXPECT_TRUE(ParseIdToken(front + std::string(kTokenLimit - front.size(), 'A')));
  EXPECT_FALSE(ParseIdToken(front + std::string(kTokenLimit - front.size() + 1, 'A')));
}

TEST(IdTokenTest, ParseIdTokenRefusesOtherAlphabets) {
  for (const std::string part : {"c2l=", "c2l+", "c2l/", "c2l ", "c2l\n", "c", "c2lnc"}) {
    EXPECT_FALSE(ParseIdToken(Join(kHead, kClaims, part))) << part;
  }
}

TEST(IdTokenTest, ParseIdTokenRefusesWhatIsNotJson) {
  EXPECT_FALSE(ParseIdToken(Join("c2ln", kClaims, kSignature)));
  EXPECT_FALSE(ParseIdToken(Join(kHead, "c2ln", kSignature)));
  EXPECT_FALSE(ParseIdToken(Join(kHead, "W10", kSignature)));  // []
}

}  // namespace
}  // namespace orbamira
