#include "platform/orbazelo.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include "platform/account/account_file.h"
#include "platform/account/id_token.h"
#include "platform/account/oidc_provider.h"
#include "platform/account/token_check.h"
#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/json/json_object.h"

namespace orbazelo {
namespace {

using namespace orbamira;  // platform/account

constexpr std::int64_t kRemainingValidity = 60;

// The most bytes that new tokens add to the account file: the longest tokens, the refresh token with every character
// escaped, and the names of the members.
constexpr std::size_t kTokensLimit = 3 * kTokenLimit + 1024;

std::int64_t Now() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

bool IsValid(const ClientTokens& tokens) {
  const std::optional<IdToken> token = ParseIdToken(tokens.id_token);
  return token && token->expires >= Now() + kRemainingValidity;
}

// What a new token must say: it is for the user of the token that it replaces.
TokenExpectation ExpectationOf(const Json::Value& account, const ClientTokens& kept, const IssuedTokens& renewed) {
  TokenExpectation expected{.issuer = TextMember(account, "issuer"),
                            .client_id = kept.client_id,
                            .subject = TextMember(account, "user_id"),
                            .nonce = "",
                            .is_renewal = true,
                            .access_token = renewed.access_token,
                            .now = Now(),
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

std::string GetIdTokenOf(const std::string& client) {
  // The file is only ever replaced whole, so reading a valid token needs no lock.
  if (ClientTokens tokens = TokensOf(ReadAccount(), client); IsValid(tokens)) {
    return std::move(tokens.id_token);
  }
  const store::FileLock lock(path::kAccountLock);
  const Json::Value account = ReadAccount();
  ClientTokens tokens = TokensOf(account, client);
  return IsValid(tokens) ? std::move(tokens.id_token) : Refresh(account, client, tokens);
}

}  // namespace

ZeloException::~ZeloException() = default;

User::User() {
  try {
    id_ = TextMember(ReadAccount(), "user_id");
  } catch (const ZeloException&) {
    throw;
  } catch (const std::exception& error) {
    throw ZeloException(error.what());
  }
}

bool User::Exists() const { return !id_.empty(); }

std::string User::GetId() const { return id_; }

// NOLINTNEXTLINE(modernize-pass-by-value): the constructor's type is part of the interface
PackagePkceClient::PackagePkceClient(const std::string& client_name) : client_name_(client_name) {}

std::string PackagePkceClient::GetIdToken() const {
  try {
    return GetIdTokenOf(client_name_);
  } catch (const ZeloException&) {
    throw;
  } catch (const std::exception& error) {
    throw ZeloException(error.what());
  }
}

}  // namespace orbazelo
