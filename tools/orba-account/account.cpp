#include "tools/orba-account/account.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <utility>

#include "platform/account/account_file.h"
#include "platform/account/id_token.h"
#include "platform/account/oidc_provider.h"
#include "platform/account/secrets.h"
#include "platform/account/token_check.h"
#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/json/json_line.h"
#include "platform/orbazelo.h"
#include "platform/posix/file_status.h"
#include "platform/posix/files.h"
#include "tools/orba-account/error.h"
#include "tools/orba-account/listener.h"
#include "tools/orba-account/provider.h"
#include "tools/packctl/view/local_time.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

// Checked before the user signs in, not after.
void CheckFolder() {
  const fs::path folder = fs::path(path::kAccountFile).parent_path();
  if (faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    ThrowErrno("the account cannot be kept in " + folder.string());
  }
}

/// Who is signed in.
struct Owner {
  std::string issuer;
  std::string user_id;

  friend bool operator==(const Owner&, const Owner&) = default;
};

Owner OwnerOf(const Json::Value& account) { return {TextMember(account, "issuer"), TextMember(account, "user_id")}; }

[[noreturn]] void ThrowOccupied(const Owner& owner) {
  throw SignInError("another account is signed in, " + owner.user_id + " of " + owner.issuer +
                    ": sign it out first, or give --replace");
}

// The account for the new tokens. If it is the same owner's, it may have tokens of other clients.
Json::Value AccountFor(const Owner& owner, bool replace) {
  if (replace) {
    return Json::objectValue;
  }
  Json::Value account = ReadAccount();
  if (const Owner present = OwnerOf(account); !present.user_id.empty() && present != owner) {
    ThrowOccupied(present);
  }
  return account;
}

void Keep(const Owner& owner, const ClientTokens& tokens, bool replace) {
  const store::FileLock lock(path::kAccountLock);
  Json::Value account = AccountFor(owner, replace);
  account["user_id"] = owner.user_id;
  account["issuer"] = owner.issuer;
  Json::Value& kept = account["clients"][kPkceClientName] = Json::objectValue;
  kept["id_token"] = tokens.id_token;
  if (!tokens.refresh_token.empty()) {
    kept["refresh_token"] = tokens.refresh_token;
  }
  if (tokens.client_id != kPkceClientName) {
    kept["client_id"] = tokens.client_id;
  }
  WriteAccount(account);
}

void ShowAddress(const Context& context, const AnswerListener& listener, const std::string& address) {
  if (context.options.json) {
    Json::Value line;
    line["command"] = "account sign-in";
    line["result"] = "waiting";
    line["address"] = address;
    context.console.Print(JsonLine(line));
    return;
  }
  context.console.Print("Open this address in a browser and sign in there:\n\n  " + Printable(address) +
                        "\n\nThe answer is awaited at " + listener.RedirectUri() + ".\n");
}

std::string CodeOf(const std::optional<AuthorizationAnswer>& answer, const SignInProvider& provider, int timeout) {
  if (!answer) {
    throw SignInError("no answer came within " + std::to_string(timeout) + " seconds");
  }
  if (answer->issuer.empty() ? provider.names_itself : answer->issuer != provider.issuer) {
    throw SignInError("the answer is from another issuer than " + provider.issuer);
  }
  if (!answer->error.empty()) {
    constexpr std::size_t kLongest = 200;
    const std::string more = answer->error_description.empty() ? "" : ", " + answer->error_description;
    throw SignInError("the provider refused the sign-in: " + Printable((answer->error + more).substr(0, kLongest)));
  }
  return answer->code;
}

/// The result of a sign-in.
struct SignedIn {
  IdToken token;
  bool renewable = false;
};

// Revokes a refresh token that is not stored. Best effort: the user learns why it was not stored, not what fails here.
void GiveBack(const SignInProvider& provider, const std::string& client_id, const std::string& refresh_token) {
  constexpr const char* kEndpoint = "revocation_endpoint";
  if (refresh_token.empty() || !provider.configuration.isMember(kEndpoint)) {
    return;
  }
  try {
    RevokeToken(EndpointOf(provider.configuration, kEndpoint), client_id, refresh_token);
  } catch (const orbazelo::ZeloException&) {  // it expires by itself
  }
}

SignedIn Complete(const Context& context, const SignInProvider& provider, const SignInSecrets& secrets,
                  const std::string& client_id, AnswerListener& listener) {
  const SignInOptions& options = context.options.sign_in;
  const std::string code = CodeOf(listener.Wait(std::chrono::seconds(options.timeout)), provider, options.timeout);
  const IssuedTokens tokens = ExchangeCode(provider.token_endpoint, {.code = code,
                                                                     .redirect_uri = listener.RedirectUri(),
                                                                     .client_id = client_id,
                                                                     .code_verifier = secrets.code_verifier});
  try {
    IdToken token = CheckIdToken(tokens.id_token,
                                 {.issuer = provider.issuer,
                                  .client_id = client_id,
                                  .nonce = secrets.nonce,
                                  .access_token = tokens.access_token,
                                  .now = std::time(nullptr),
                                  .provider_time = tokens.date},
                                 [&] { return FetchKeys(provider.jwks_uri); });
    Keep({provider.issuer, token.subject}, {client_id, tokens.id_token, tokens.refresh_token}, options.replace);
    return {std::move(token), !tokens.refresh_token.empty()};
  } catch (const std::exception&) {
    GiveBack(provider, client_id, tokens.refresh_token);
    throw;
  }
}

Outcome Describe(const SignedIn& done) {
  Outcome outcome{.result = "signed_in"};
  outcome.members["user_id"] = done.token.subject;
  outcome.members["issuer"] = done.token.issuer;
  outcome.members["expires"] = Json::Int64{done.token.expires};
  outcome.members["renewable"] = done.renewable;
  outcome.text = "Signed in as " + Printable(done.token.subject) + ".\n";
  if (!done.renewable) {
    outcome.text += "The provider gave no refresh token: sign in again when the identity token expires, at " +
                    LocalTime(done.token.expires) + ".\n";
  }
  return outcome;
}

// The tokens of this program's client; empty ones when the account has none.
ClientTokens OwnTokens(const Json::Value& account) {
  return ObjectMember(account, "clients").isMember(kPkceClientName) ? TokensOf(account, kPkceClientName)
                                                                    : ClientTokens{.client_id = kPkceClientName};
}

Outcome NobodySignedIn(const char* result) {
  return {.exit = kExitNothingToDo, .result = result, .text = "Nobody is signed in.\n"};
}

/// The result of revoking refresh tokens.
struct Revocation {
  bool done = false;
  std::string problem = {};
};

// Revokes the token of each client in the account, because all of them are signed out.
Revocation Revoke() try {
  const Json::Value account = ReadAccount();
  const Json::Value clients = ObjectMember(account, "clients");
  Json::Value configuration;
  bool revoked = false;
  for (const std::string& name : clients.getMemberNames()) {
    const ClientTokens tokens = TokensOf(account, name);
    if (tokens.refresh_token.empty()) {
      continue;
    }
    if (configuration.isNull()) {
      configuration = DiscoverProvider(TextMember(account, "issuer"));
    }
    if (configuration.isMember("revocation_endpoint")) {
      RevokeToken(EndpointOf(configuration, "revocation_endpoint"), tokens.client_id, tokens.refresh_token);
      revoked = true;
    }
  }
  return {.done = revoked};
} catch (const orbazelo::ZeloException& error) {
  return {.problem = std::string("the refresh token could not be revoked, and ends by itself: ") + error.what()};
}

}  // namespace

Outcome SignIn(Context& context) {
  const SignInOptions& options = context.options.sign_in;
  CheckFolder();
  if (!options.replace) {
    if (const Owner present = OwnerOf(ReadAccount()); !present.user_id.empty() && present.issuer != options.issuer) {
      ThrowOccupied(present);
    }
  }
  const std::string client_id = options.client_id.empty() ? kPkceClientName : options.client_id;
  const SignInProvider provider = AskProvider(options.issuer);
  const SignInSecrets secrets = MakeSecrets();
  AnswerListener listener(options.port, secrets.state);
  ShowAddress(context, listener, AuthorizationAddress(provider, secrets, client_id, listener.RedirectUri()));
  try {
    const SignedIn done = Complete(context, provider, secrets, client_id, listener);
    listener.ShowEnd("");
    return Describe(done);
  } catch (const std::exception& error) {
    listener.ShowEnd(error.what());
    throw;
  }
}

Outcome SignOut(Context& /*context*/) {
  const store::FileLock lock(path::kAccountLock);
  if (!fs::exists(LinkStatusOf(path::kAccountFile))) {
    return NobodySignedIn("nothing_to_do");
  }
  Outcome outcome{.result = "signed_out"};
  const Revocation revocation = Revoke();
  if (!revocation.problem.empty()) {
    outcome.problems = {revocation.problem};
  }
  RemoveAccount();
  outcome.members["revoked"] = revocation.done;
  outcome.text = revocation.done ? "Signed out, and the refresh token is revoked.\n" : "Signed out.\n";
  return outcome;
}

Outcome AccountStatus(Context& /*context*/) {
  const Json::Value account = ReadAccount();
  const Owner owner = OwnerOf(account);
  if (owner.user_id.empty()) {
    return NobodySignedIn("signed_out");
  }
  const ClientTokens tokens = OwnTokens(account);
  const std::int64_t expires = ParseIdToken(tokens.id_token).value_or(IdToken{}).expires;
  const bool valid = expires > std::time(nullptr);
  const bool renewable = !tokens.refresh_token.empty();
  Outcome outcome{.result = "signed_in"};
  outcome.members["user_id"] = owner.user_id;
  outcome.members["issuer"] = owner.issuer;
  outcome.members["client_id"] = tokens.client_id;
  outcome.members["valid"] = valid;
  outcome.members["expires"] = expires != 0 ? Json::Value(Json::Int64{expires}) : Json::Value();
  outcome.members["renewable"] = renewable;
  outcome.text = "User: " + Printable(owner.user_id) + "\nIssuer: " + Printable(owner.issuer) + "\nIdentity token: " +
                 (expires == 0 ? "none" : (valid ? "valid until " : "expired at ") + LocalTime(expires)) +
                 "\nCan be renewed: " + (renewable ? "yes" : "no, sign in again when it has expired") + "\n";
  return outcome;
}

}  // namespace orbamira::packctl
