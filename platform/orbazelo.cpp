#include "platform/orbazelo.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/atomic_file.h"
#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/id_token.h"
#include "platform/json_object.h"
#include "platform/oidc_provider.h"
#include "platform/unique_fd.h"

namespace orbazelo {
namespace {

namespace path = orbamira::path;

constexpr off_t kAccountLimit = 1024L * 1024;
constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
constexpr std::int64_t kRemainingValidity = 60;

[[noreturn]] void ThrowAboutFile(const std::string& what) {
  throw ZeloException("the account file " + std::string(path::kAccountFile) + " " + what);
}

std::string ErrorText() { return std::strerror(errno); }  // NOLINT(concurrency-mt-unsafe)

// The text of the account file; empty when there is no such file.
std::optional<std::string> ReadAccountFile() {
  const orbamira::UniqueFd file = orbamira::OpenFile(path::kAccountFile, O_RDONLY);
  if (!file.valid()) {
    if (errno == ENOENT) {
      return std::nullopt;
    }
    ThrowAboutFile("cannot be opened: " + ErrorText());
  }
  struct stat status {};
  if (fstat(file.get(), &status) != 0) {
    ThrowAboutFile("cannot be examined: " + ErrorText());
  }
  if (!S_ISREG(status.st_mode)) {
    ThrowAboutFile("is not a regular file");
  }
  if ((status.st_mode & kOthers) != 0) {
    ThrowAboutFile("is open to others than its owner; its mode must be 0600");
  }
  if (status.st_size > kAccountLimit) {
    ThrowAboutFile("is over " + std::to_string(kAccountLimit) + " bytes");
  }
  std::optional<std::string> text = orbamira::ReadUpTo(file.get(), static_cast<std::size_t>(kAccountLimit));
  if (!text) {
    ThrowAboutFile("cannot be read: " + ErrorText());
  }
  return text;
}

// The member's text; empty when it is missing.
std::string TextMember(const Json::Value& object, const std::string& name) {
  const Json::Value text = object.get(name, "");
  if (!text.isString()) {
    ThrowAboutFile("is malformed: \"" + name + "\" is not a text");
  }
  return text.asString();
}

// The member's object; an empty one when it is missing.
Json::Value ObjectMember(const Json::Value& object, const std::string& name) {
  Json::Value member = object.get(name, Json::objectValue);
  if (!member.isObject()) {
    ThrowAboutFile("is malformed: \"" + name + "\" is not an object");
  }
  return member;
}

// An empty object when no account is registered.
Json::Value ReadAccount() {
  const std::optional<std::string> text = ReadAccountFile();
  if (!text) {
    return Json::objectValue;
  }
  std::optional<Json::Value> account = ParseJsonObject(*text);
  if (!account) {
    ThrowAboutFile("is malformed: it is not a JSON object");
  }
  return *std::move(account);
}

void WriteAccount(const Json::Value& account) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  try {
    orbamira::ReplaceFile(path::kAccountFile, Json::writeString(builder, account) + "\n", S_IRUSR | S_IWUSR,
                          orbamira::Durability::kDurable);
  } catch (const std::exception& error) {
    throw ZeloException(std::string("the provider's new tokens could not be kept: ") + error.what());
  }
}

std::int64_t Now() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// What the account file holds for one client.
struct ClientTokens {
  std::string id_token;
  std::string refresh_token;

  [[nodiscard]] bool IsValid() const {
    const std::optional<IdToken> token = ParseIdToken(id_token);
    return token && token->expires >= Now() + kRemainingValidity;
  }
};

ClientTokens TokensOf(const Json::Value& account, const std::string& client) {
  if (TextMember(account, "user_id").empty()) {
    throw ZeloException("no account is signed in");
  }
  const Json::Value clients = ObjectMember(account, "clients");
  if (!clients.isMember(client)) {
    throw ZeloException("the account has no tokens for client " + client);
  }
  const Json::Value tokens = ObjectMember(clients, client);
  return {TextMember(tokens, "id_token"), TextMember(tokens, "refresh_token")};
}

// Why a new token cannot be taken for the one that it replaces (OpenID Connect Core 1.0, section 12.2); empty when it
// can.
std::string FaultOf(const std::string& new_token, const std::string& old_token, const std::string& issuer,
                    const std::string& client) {
  const std::optional<IdToken> token = ParseIdToken(new_token);
  if (!token) {
    return "it is missing or malformed";
  }
  if (token->issuer != issuer) {
    return "it is of another issuer";
  }
  if (!token->IsFor(client)) {
    return "it is for another client";
  }
  const std::optional<IdToken> old = ParseIdToken(old_token);
  if (old && old->subject != token->subject) {
    return "it is of another user";
  }
  return token->expires > Now() ? "" : "it has expired";
}

// Exchanges the tokens in the account for new ones. Called under the lock.
std::string Refresh(Json::Value account, const std::string& client, const ClientTokens& tokens) {
  if (tokens.refresh_token.empty()) {
    throw ZeloException("the identity token has expired and there is no refresh token for client " + client);
  }
  const std::string issuer = TextMember(account, "issuer");
  const RefreshedTokens renewed = RefreshTokens(issuer, client, tokens.refresh_token);
  const std::string fault = FaultOf(renewed.id_token, tokens.id_token, issuer, client);

  // A rotated refresh token is kept even beside an identity token that is of no use: the old one is spent, and without
  // the new one a wrong clock here would sign the user out for good.
  Json::Value& kept = account["clients"][client];
  if (!renewed.refresh_token.empty()) {
    kept["refresh_token"] = renewed.refresh_token;
  }
  if (fault.empty()) {
    kept["id_token"] = renewed.id_token;
  }
  if (fault.empty() || !renewed.refresh_token.empty()) {
    WriteAccount(account);
  }
  if (!fault.empty()) {
    throw ZeloException("the provider's identity token cannot be used: " + fault);
  }
  return renewed.id_token;
}

std::string GetIdTokenOf(const std::string& client) {
  // The file is only ever replaced whole, so a valid token costs no lock.
  if (ClientTokens tokens = TokensOf(ReadAccount(), client); tokens.IsValid()) {
    return std::move(tokens.id_token);
  }
  const orbamira::store::FileLock lock(path::kAccountLock);
  const Json::Value account = ReadAccount();
  ClientTokens tokens = TokensOf(account, client);
  return tokens.IsValid() ? std::move(tokens.id_token) : Refresh(account, client, tokens);
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
