#include "platform/account/renewal.h"

#include <cstddef>
#include <optional>
#include <utility>

#include "platform/account/account_file.h"
#include "platform/account/id_token.h"
#include "platform/account/oidc_provider.h"
#include "platform/account/token_check.h"
#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/json/json_object.h"
#include "platform/orbazelo.h"

namespace orbamira {
namespace {

using orbazelo::ZeloException;

// The most bytes that new tokens add to the account file: the longest tokens, the refresh token with every character
// escaped, and the names of the members.
constexpr std::size_t kTokensLimit = 3 * kTokenLimit + 1024;

// What a new token must say: it is for the user of the token that it replaces.
TokenExpectation ExpectationOf(const Json::Value& account, const ClientTokens& kept, const IssuedTokens& renewed) {
  TokenExpectation expected{.issuer = TextMember(account, "issuer"),
                            .client_id = kept.client_id,
                            .subject = TextMember(account, "user_id"),
                            .nonce = "",
                            .is_renewal = true,
                            .access_token = renewed.access_token,
                            .now = SecondsSince1970(),
                            .provider_time = renewed.date};
  if (const std::optional<JsonWebToken> old = ParseJsonWebToken(kept.id_token)) {
    expected.subject = ReadClaims(old->claims).subject;
    expected.nonce = TextOf(old->claims["nonce"]);
  }
  return expected;
}

// Exchanges the tokens in the account for new ones. The caller holds the lock.
std::string Refresh(Json::Value account, const std::string& client, const ClientTokens& tokens) {
  if (tokens.refresh_token.empty()) {
    throw ZeloException("the identity token has expired and there is no refresh token for client " + client);
  }
  AccountRoom room(account, kTokensLimit);  // before the refresh token is spent
  const Json::Value provider = DiscoverProvider(TextMember(account, "issuer"));
  const std::string keys = EndpointOf(provider, "jwks_uri");
  const std::string endpoint = EndpointOf(provider, "token_endpoint");
  const IssuedTokens renewed = RefreshTokens(endpoint, tokens.client_id, tokens.refresh_token);
  const TokenExpectation expected = ExpectationOf(account, tokens, renewed);

  // Store a new refresh token first, even if the identity token turns out to be bad: the old one is spent, and without
  // the new one a wrong clock here would sign the user out for good.
  Json::Value& kept = account["clients"][client];
  if (!renewed.refresh_token.empty()) {
    kept["refresh_token"] = renewed.refresh_token;
    room.Write(account);
  }
  CheckIdToken(renewed.id_token, expected, [&] { return FetchKeys(keys); });
  kept["id_token"] = renewed.id_token;
  WriteAccount(account);
  return renewed.id_token;
}

}  // namespace

std::string RenewIdToken(const std::string& client) {
  const store::FileLock lock(path::kAccountLock);
  const Json::Value account = ReadAccount();
  ClientTokens tokens = TokensOf(account, client);
  return IsFresh(tokens) ? std::move(tokens.id_token) : Refresh(account, client, tokens);
}

}  // namespace orbamira
