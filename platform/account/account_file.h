#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

#include "platform/posix/atomic_file.h"

// Reads and writes the account file that platform/orbazelo.h describes. Not installed. A reader needs no lock, because
// the file is only ever replaced whole. A writer holds path::kAccountLock from reading to writing.
namespace orbamira {

/// Reads the account; an empty object when nobody is signed in. Throws ZeloException when there is an account file but
/// it cannot be read, is accessible to other users or is malformed.
[[nodiscard]] Json::Value ReadAccount();

/// Replaces the account file, mode 0600; it survives a power cut once this returns. Throws ZeloException when that
/// fails. An account that ReadAccount() would refuse is refused before anything is replaced.
void WriteAccount(const Json::Value& account);

/// Reserves room on disk for the account with new tokens, before the provider is asked for them: it sends them only
/// once and the old refresh token is then spent, so a full disk would sign the user out.
class AccountRoom {
 public:
  /// Reserves room for the account and `growth` more bytes. Throws ZeloException when there is no room, or when the
  /// account could become longer than ReadAccount() accepts.
  AccountRoom(const Json::Value& account, std::size_t growth);

  /// Writes the account as WriteAccount() does. Call it only once.
  void Write(const Json::Value& account);

 private:
  ReservedFile file_;
};

/// Removes the account file and what a killed writer left beside it; they stay removed after a power cut. Throws
/// ZeloException when that fails.
void RemoveAccount();

/// A member of the account or of an object in it; empty when it is missing. Throw ZeloException when it has another
/// type.
[[nodiscard]] std::string TextMember(const Json::Value& object, const std::string& name);
[[nodiscard]] Json::Value ObjectMember(const Json::Value& object, const std::string& name);

/// What the account stores for one client.
struct ClientTokens {
  std::string client_id = {};      ///< what the provider calls the client
  std::string id_token = {};       ///< as the provider sent it
  std::string refresh_token = {};  ///< empty when there is none
};

/// The tokens of the client with this name. Throws ZeloException when nobody is signed in or the account has none for
/// this client.
[[nodiscard]] ClientTokens TokensOf(const Json::Value& account, const std::string& client);

/// Whether the identity token stays valid for another minute at least.
[[nodiscard]] bool IsFresh(const ClientTokens& tokens);

}  // namespace orbamira
