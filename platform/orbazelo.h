#pragma once

#include <stdexcept>
#include <string>

#include "platform/export.h"

/// The client of the account service: who is signed in on this appliance, and the identity token (OpenID Connect Core
/// 1.0) that proves it. The account is stored in orbamira::path::kAccountFile, a JSON object of mode 0600:
///
///     {"user_id": "...", "issuer": "https://...",
///      "clients": {"<client name>": {"id_token": "...", "refresh_token": "...", "client_id": "..."}}}
///
/// where client_id is the provider's name for the client, if it differs.
namespace orbazelo {

/// The account service could not answer. what() gives the reason and never contains a token.
class ORBAMIRA_EXPORT ZeloException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ZeloException(const ZeloException&) = default;
  ZeloException& operator=(const ZeloException&) = default;
  ~ZeloException() override;
};

/// The user who is signed in on this appliance, as the account file says when the object is made. The object does not
/// change afterwards, so any thread may read it.
class ORBAMIRA_EXPORT User {
 public:
  /// Reads the account file; a missing file means that nobody is signed in. Throws ZeloException when the file exists
  /// but cannot be read, is accessible to other users or is malformed.
  User();

  /// Whether somebody is signed in.
  [[nodiscard]] bool Exists() const;

  /// The user's id; empty when nobody is signed in.
  [[nodiscard]] std::string GetId() const;

 private:
  std::string id_;
};

/// One client of the signed-in account. The provider knows it by its name.
class ORBAMIRA_EXPORT PackagePkceClient {
 public:
  /// Makes the client with this name. Reads nothing and asks nobody yet.
  explicit PackagePkceClient(const std::string& client_name);

  /// The stored identity token if it is valid for at least another minute; otherwise a new one. A new token is fetched
  /// with the refresh token from the provider that `<issuer>/.well-known/openid-configuration` describes. It must be
  /// signed by the provider, for this client and the same user; it is then stored, together with the refresh token if
  /// the provider sent a new one.
  ///
  /// Blocks for up to four requests of at most 20 seconds each, and while another caller refreshes. Several processes
  /// and threads may call at once: one refreshes, the others take its result. Throws ZeloException for every failure.
  [[nodiscard]] std::string GetIdToken() const;

 private:
  std::string client_name_;
};

}  // namespace orbazelo
