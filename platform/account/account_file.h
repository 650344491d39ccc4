#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

#include "platform/posix/atomic_file.h"

// The account file of platform/orbazelo.h, as its readers and writers share it. Not installed. A reader needs no lock:
// the file is only ever replaced whole. Who writes holds orbamira::path::kAccountLock from reading to writing.
namespace orbamira {

/// The account; an empty object when none is registered. Throws ZeloException when there is an account file but it
/// cannot be read, is open to others or is malformed.
[[nodiscard]] Json::Value ReadAccount();

/// Replaces the account file, mode 0600. Durable when it returns. Throws ZeloException when that fails, and before
/// anything is replaced for an account that ReadAccount() would not take.
void WriteAccount(const Json::Value& account);

/// The room on disk for the account as it will be with new tokens, taken before the provider is asked for them: it
/// takes the refresh token for them, and gives them only once.
class AccountRoom {
 public:
  /// For the account and `growth` bytes more. Throws ZeloException when there is no room, or the account could become
  /// longer than ReadAccount() takes.
  AccountRoom(const Json::Value& account, std::size_t growth);

  /// As WriteAccount(). Only once.
  void Write(const Json::Value& account);

 private:
  ReservedFile file_;
};

/// Removes the account file, and what a writer that was killed left beside it. Durable when it returns; throws
/// ZeloException when that fails.
void RemoveAccount();

/// A member of the account or of a part of it; empty when it is missing. Throw ZeloException when it is something else.
[[nodiscard]] std::string TextMember(const Json::Value& object, const std::string& name);
[[nodiscard]] Json::Value ObjectMember(const Json::Value& object, const std::string& name);

/// What the account holds for one client.
struct ClientTokens {
  std::string client_id = {};      ///< what the provider calls the client
  std::string id_token = {};       ///< as it was sent
  std::string refresh_token = {};  ///< empty when there is none
};

/// The tokens of the client of this name. Throws ZeloException when no account is signed in or it has none for it.
[[nodiscard]] ClientTokens TokensOf(const Json::Value& account, const std::string& client);

}  // namespace orbamira
