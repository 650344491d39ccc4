#pragma once

#include <cpr/cpr.h>

#include <fstream>
#include <memory>

#include "platform/export.h"

namespace orbamira::wrapper {

/// An HTTP session for plain downloads, behind an interface so that a test or another platform can stand in for it. It
/// downloads once, without progress or resuming; DownloadWrapper does both. The order of the operations is a binary
/// contract.
class ORBAMIRA_EXPORT ICprSession {
 public:
  virtual ~ICprSession() = default;

  /// Fetches the URL set before and writes the body to `file`. The stream stays open and belongs to the caller. Blocks
  /// until the transfer ends.
  ///
  /// Returns the response: `status_code` is the HTTP status (200 is the only success), or 0 when the transfer failed,
  /// with the reason in `error`. A body that could not be written (a full disk, a stream that is not open) or that is
  /// larger than the download_limit of the settings is a failed transfer too. Do not call it from two threads at once.
  virtual cpr::Response DownloadToFile(std::ofstream& file) = 0;

  /// Sets the URL to fetch. Only http and https are fetched, also behind redirects: ten at most, and never from https
  /// to http. Any other URL fails when it is fetched.
  virtual void SetUrl(const cpr::Url& url) = 0;
};

/// The HTTP session on cpr. One object is one session and keeps its connections open.
class ORBAMIRA_EXPORT CprSession : public ICprSession {
 public:
  /// Makes a session; never empty. When it first downloads, it loads what it needs of libcurl and reads the settings of
  /// the network (proxy, ca_file, download_rate); if either fails, the download has failed.
  static std::shared_ptr<ICprSession> Create();

  /// Makes a session with all that it needs. Throws std::runtime_error when libcurl cannot be loaded, or a setting of
  /// the network cannot be used.
  CprSession();
  ~CprSession() override;
  CprSession(const CprSession&) = delete;
  CprSession& operator=(const CprSession&) = delete;

  cpr::Response DownloadToFile(std::ofstream& file) override;
  void SetUrl(const cpr::Url& url) override;

 private:
  // In a union, so that only the code that loads libcurl makes and destroys it.
  union {
    cpr::Session session_;
  };
};

}  // namespace orbamira::wrapper
