#pragma once

#include <stdexcept>
#include <string>

#include "platform/export.h"

/// The client of the account service: who is signed in on this appliance, and the identity token (OpenID Connect Core
/// 1.0) that proves it. The account lies in orbamira::path::kAccountFile, a JSON object of mode 0600:
///
///     {"user_id": "...", "issuer": "https://...",
///      "clients": {"<client name>": {"id_token": "...", "refresh_token": "...", "client_id": "..."}}}
///
/// where client_id is what the provider calls the client, when that is not its name.
namespace orbazelo {

/// Why the account service could not answer; what() gives the reason and never a token.
class ORBAMIRA_EXPORT ZeloException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ZeloException(const ZeloException&) = default;
  ZeloException& operator=(const ZeloException&) = default;
  ~ZeloException() override;
};

/// The account user of this appliance, as the account file said when the object was made.
class ORBAMIRA_EXPORT User {
 public:
  /// Throws ZeloException when there is an account file but it cannot be read, is open to others or is malformed.
  User();

  /// Whether an account is registered on the appliance.
  [[nodiscard]] bool Exists() const;

  /// The user's id; empty when no account is registered.
  [[nodiscard]] std::string GetId() const;

 private:
  std::string id_;
};

/// One client of the signed-in account, known to the provider by its name.
class ORBAMIRA_EXPORT PackagePkceClient {
 public:
  /// The client of this name. Nothing is read or asked yet.
  explicit PackagePkceClient(const std::string& client_name);

  /// The stored identity token while it is valid for another minute. Otherwise a new one, fetched with the refresh
  /// token from the provider that `<issuer>/.well-known/openid-configuration` describes, and kept in the account file
  /// together with a rotated refresh token. The new token must be signed by the provider, and be for this client and
  /// the same user. Blocks for four requests of at most 20 seconds each, and for another caller's.
  /// Several processes and threads may call at once: one refreshes, the others take what it brought. Throws
  /// ZeloException with the reason for everything that goes wrong.
  [[nodiscard]] std::string GetIdToken() const;

 private:
  std::string client_name_;
};

}  // namespace orbazelo
