#pragma once

#include <string>

// The renewal of an identity token. Not installed.
namespace orbamira {

/// Exchanges the client's refresh token for a new identity token, stores both and returns the identity token. When the
/// stored token is valid after all, because another process has renewed it, that is returned. Blocks until the provider
/// answers and holds the account's lock meanwhile. Throws ZeloException when the account or the provider is at fault,
/// and std::system_error when there can be no lock.
[[nodiscard]] std::string RenewIdToken(const std::string& client);

}  // namespace orbamira
