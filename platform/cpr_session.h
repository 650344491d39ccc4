#pragma once

#include <cpr/cpr.h>

#include <fstream>
#include <memory>

#include "platform/export.h"

namespace orbamira::wrapper {

/// An HTTP session for plain downloads. The order of the operations is a binary contract.
class ORBAMIRA_EXPORT ICprSession {
 public:
  virtual ~ICprSession() = default;

  /// Fetches the URL set before and writes the body to `file`, which stays open and is the caller's. Blocks until the
  /// transfer ends. `status_code` of the response is the HTTP status (200 is the only success), or 0 when the transfer
  /// failed, with the reason in `error`: a body that could not be written whole (a full disk, a stream that is not
  /// open) counts as a failed transfer. Not for use from two threads at once.
  virtual cpr::Response DownloadToFile(std::ofstream& file) = 0;

  /// The URL to fetch; http and https only, and so are redirects (ten at most, none from https to http).
  virtual void SetUrl(const cpr::Url& url) = 0;
};

/// The HTTP session on cpr.
class ORBAMIRA_EXPORT CprSession : public ICprSession {
 public:
  /// A fresh session; never empty.
  static std::shared_ptr<ICprSession> Create();

  /// As Create() makes it.
  CprSession();

  cpr::Response DownloadToFile(std::ofstream& file) override;
  void SetUrl(const cpr::Url& url) override;

 private:
  cpr::Session session_;
};

}  // namespace orbamira::wrapper
