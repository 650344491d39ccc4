#include "platform/account/token_check.h"

#include "platform/account/oidc_provider.h"
#include "platform/account/secrets.h"
#include "platform/json/json_object.h"
#include "platform/orbazelo.h"

namespace orbamira {
namespace {

using orbazelo::ZeloException;

// The longest user id (Core 1.0, section 2).
constexpr std::size_t kLongestSubject = 255;
constexpr std::int64_t kClockTolerance = 5LL * 60;

// Section 3.1.3.6: the left half of the hash.
std::string HalfHash(const std::string& text, const char* hash) {
  std::string digest = Digest(text, hash);
  digest.resize(digest.size() / 2);
  return ToBase64Url(digest);
}

void CheckAudience(const Json::Value& claims, const IdToken& token, const std::string& client_id) {
  if (!token.IsFor(client_id)) {
    throw ZeloException("the identity token is for another client than " + client_id);
  }
  const bool names_party = claims.isMember("azp");
  if ((token.audience.size() > 1 && !names_party) || (names_party && TextOf(claims["azp"]) != client_id)) {
    throw ZeloException("the identity token was issued to another client than " + client_id);
  }
}

void CheckTimes(const Json::Value& claims, const IdToken& token, const TokenExpectation& expected) {
  if (token.expires == 0 || TimeOf(claims["iat"]) == 0) {
    throw ZeloException("the identity token does not say when it was issued and when it expires");
  }
  const bool has_expired = token.expires <= expected.now;
  const std::int64_t latest = expected.now + kClockTolerance;
  const bool is_of_the_future = TimeOf(claims["iat"]) > latest || TimeOf(claims["nbf"]) > latest;
  if (!has_expired && !is_of_the_future) {
    return;
  }
  if (const std::string clock = ClockFault(expected.now, expected.provider_time); !clock.empty()) {
    throw ZeloException(clock + ": set the clock and sign in again");
  }
  throw ZeloException(has_expired ? "the provider's identity token has expired already"
                                  : "the provider's identity token was issued in the future");
}

}  // namespace

IdToken CheckIdToken(const std::string& text, const TokenExpectation& expected, const KeySource& keys) {
  const std::optional<JsonWebToken> parts = ParseJsonWebToken(text);
  if (!parts) {
    throw ZeloException("the provider gave no well-formed identity token");
  }
  CheckSignature(*parts, keys);
  const Json::Value& claims = parts->claims;
  IdToken token = ReadClaims(claims);
  if (token.issuer != expected.issuer) {
    throw ZeloException("the identity token is from another issuer than " + expected.issuer);
  }
  CheckAudience(claims, token, expected.client_id);
  const bool may_lack_nonce = expected.is_renewal && !claims.isMember("nonce");
  if (!may_lack_nonce && TextOf(claims["nonce"]) != expected.nonce) {
    throw ZeloException("the identity token is for another sign-in: its nonce does not match");
  }
  if (token.subject.empty() || token.subject.size() > kLongestSubject) {
    throw ZeloException("the identity token names no user");
  }
  if (!expected.subject.empty() && token.subject != expected.subject) {
    throw ZeloException("the identity token is for another user than the one who is signed in");
  }
  if (claims.isMember("at_hash") &&
      TextOf(claims["at_hash"]) != HalfHash(expected.access_token, HashOf(TextOf(parts->header["alg"])))) {
    throw ZeloException("the identity token does not belong to the access token that came with it");
  }
  CheckTimes(claims, token, expected);
  return token;
}

}  // namespace orbamira
