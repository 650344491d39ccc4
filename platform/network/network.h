#pragma once

#include <fstream>
#include <memory>
#include <string>

#include "platform/cpr_session.h"
#include "platform/http/download_policy.h"
#include "platform/network/request.h"

// What needs libcurl, which brings 31 other libraries. Most processes never use it, so the platform's library has it in
// a module that is loaded when something is fetched. Not installed.
namespace orbamira {

/// The services of the network module. Several threads may call them at once, but use one session from one thread only.
/// The library and its module are always of the same version, so the order of the operations may change.
class Network {
 public:
  /// AskNetwork().
  [[nodiscard]] virtual NetworkReply Ask(const NetworkRequest& request) const = 0;

  /// NetworkLibraries().
  [[nodiscard]] virtual std::string Libraries() const = 0;

  /// Makes a download with this policy; never empty. Throws std::runtime_error when a setting of the network cannot be
  /// used.
  [[nodiscard]] virtual std::shared_ptr<wrapper::DownloadWrapper> MakeDownload(const DownloadPolicy& policy) const = 0;

  /// Makes the session of a CprSession in `place`, which has room for it. Throws as MakeDownload() does.
  virtual void MakeSession(cpr::Session* place) const = 0;

  /// Destroys what MakeSession() made.
  virtual void DestroySession(cpr::Session& session) const = 0;

  /// CprSession::SetUrl().
  virtual void SetUrl(cpr::Session& session, const cpr::Url& url) const = 0;

  /// CprSession::DownloadToFile().
  [[nodiscard]] virtual cpr::Response DownloadToFile(cpr::Session& session, std::ofstream& file) const = 0;

  /// Renews the client's identity token, unless another process has done so meanwhile, and returns it. Throws
  /// ZeloException when that fails.
  [[nodiscard]] virtual std::string RenewIdToken(const std::string& client) const = 0;

 protected:
  ~Network() = default;
};

/// The services. In the platform's shared library, the first call loads the module from the folder of that library, and
/// it stays loaded until the process ends. Programs that link the rooms contain it. Throws std::runtime_error when the
/// module is missing or of another version; the next call tries again. Several threads may call it at once.
[[nodiscard]] const Network& LoadNetwork();

}  // namespace orbamira
