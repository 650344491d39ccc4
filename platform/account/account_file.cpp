#include "platform/account/account_file.h"

#include <fcntl.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/account/id_token.h"
#include "platform/constants.h"
#include "platform/json/json_object.h"
#include "platform/orbazelo.h"
#include "platform/posix/sync_folder.h"
#include "platform/posix/trust.h"
#include "platform/posix/unique_fd.h"

namespace orbamira {
namespace {

using orbazelo::ZeloException;

constexpr std::size_t kAccountLimit = std::size_t{1024} * 1024;
constexpr mode_t kOthers = S_IRWXG | S_IRWXO;

[[noreturn]] void ThrowAboutFile(const std::string& what) {
  throw ZeloException("the account file " + std::string(path::kAccountFile) + " " + what);
}

std::string ErrorText() { return std::strerror(errno); }  // NOLINT(concurrency-mt-unsafe)

// The text of the account file; empty when there is no such file.
std::optional<std::string> ReadAccountFile() {
  const UniqueFd file = OpenFile(path::kAccountFile, O_RDONLY);
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
    ThrowAboutFile("is accessible to users other than its owner; its mode must be 0600");
  }
  if (const std::string reason = WhyDistrusted(status, Self(), "it"); !reason.empty()) {
    ThrowAboutFile("is not used: " + reason);
  }
  if (status.st_size > static_cast<off_t>(kAccountLimit)) {
    ThrowAboutFile("is over " + std::to_string(kAccountLimit) + " bytes");
  }
  std::optional<std::string> text = ReadUpTo(file.get(), kAccountLimit);
  if (!text) {
    ThrowAboutFile("cannot be read: " + ErrorText());
  }
  return text;
}

std::string Serialized(const Json::Value& account) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, account) + "\n";
}

// The size, if an account may have it.
std::size_t Checked(std::size_t size) {
  if (size > kAccountLimit) {
    ThrowAboutFile("would be over " + std::to_string(kAccountLimit) + " bytes");
  }
  return size;
}

ReservedFile Reserve(std::size_t size) try {
  return {path::kAccountFile, Checked(size)};
} catch (const std::system_error& error) {
  throw ZeloException(std::string("new tokens could not be stored: ") + error.what());
}

}  // namespace

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

void WriteAccount(const Json::Value& account) { AccountRoom(account, 0).Write(account); }

AccountRoom::AccountRoom(const Json::Value& account, std::size_t growth)
    : file_(Reserve(Serialized(account).size() + growth)) {}

void AccountRoom::Write(const Json::Value& account) try {
  const std::string text = Serialized(account);
  Checked(text.size());
  file_.Replace(text, S_IRUSR | S_IWUSR);
} catch (const std::system_error& error) {
  throw ZeloException(std::string("the provider's new tokens could not be stored: ") + error.what());
}

void RemoveAccount() {
  const std::string unfinished = ReservedFile::NameBeside(path::kAccountFile);
  if (unlink(path::kAccountFile) != 0 || (unlink(unfinished.c_str()) != 0 && errno != ENOENT)) {
    ThrowAboutFile("cannot be removed: " + ErrorText());
  }
  try {
    SyncFolderOf(path::kAccountFile);
  } catch (const std::system_error& error) {
    ThrowAboutFile("is removed, but may come back after a power cut: " + error.code().message());
  }
}

std::string TextMember(const Json::Value& object, const std::string& name) {
  const Json::Value text = object.get(name, "");
  if (!text.isString()) {
    ThrowAboutFile("is malformed: \"" + name + "\" is not a text");
  }
  return text.asString();
}

Json::Value ObjectMember(const Json::Value& object, const std::string& name) {
  Json::Value member = object.get(name, Json::objectValue);
  if (!member.isObject()) {
    ThrowAboutFile("is malformed: \"" + name + "\" is not an object");
  }
  return member;
}

ClientTokens TokensOf(const Json::Value& account, const std::string& client) {
  if (TextMember(account, "user_id").empty()) {
    throw ZeloException("no account is signed in");
  }
  const Json::Value clients = ObjectMember(account, "clients");
  if (!clients.isMember(client)) {
    throw ZeloException("the account has no tokens for client " + client);
  }
  const Json::Value tokens = ObjectMember(clients, client);
  const std::string client_id = TextMember(tokens, "client_id");
  return {client_id.empty() ? client : client_id, TextMember(tokens, "id_token"), TextMember(tokens, "refresh_token")};
}

bool IsFresh(const ClientTokens& tokens) {
  constexpr std::int64_t kRemainingValidity = 60;
  const std::optional<IdToken> token = ParseIdToken(tokens.id_token);
  return token && token->expires >= SecondsSince1970() + kRemainingValidity;
}

}  // namespace orbamira
