#pragma once

#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "platform/export.h"

namespace orbamira::wrapper {

/// One download with progress, made to arrive over a bad network: a transfer that is cut midway is taken up where it
/// stopped. The order of the operations is a binary contract. Not for use from two threads at once.
class ORBAMIRA_EXPORT DownloadWrapper {
 public:
  /// A fresh download; empty when none can be made.
  static std::shared_ptr<DownloadWrapper> Create();

  /// As above, of a body that has at most `size` bytes: a larger one fails.
  static std::shared_ptr<DownloadWrapper> CreateForSize(std::int64_t size);

  virtual ~DownloadWrapper() = default;

  /// Fetches the link and writes the body to `file`, which stays open and is the caller's. Blocks until the transfer
  /// ends. Returns the HTTP status; 200 is the only success, and then the whole body is on disk, also after a power
  /// cut. Throws Exception<kDownloadFailure> when the transfer failed: no connection, a stall (under 1 byte per second
  /// for 30 seconds; connecting and the first byte together may take 60), a cut that could not be mended, a link that
  /// is neither http nor https, a body that could not be written, is larger than the settings' download_limit, or
  /// leaves less free on the disk than a twentieth of it, up to 64 MiB; of such a body nothing stays in the file.
  virtual int DownloadToFile(std::ofstream& file) = 0;

  /// The link to fetch; http and https only, and so are redirects (ten at most, none from https to http).
  virtual void SetUrl(const std::string& link) = 0;

  /// `progress` is called with the bytes received so far and the size in bytes of the whole body (0 while unknown) at
  /// the first and the last byte, and in between so seldom that it costs at most 2 % of the time. It runs on the thread
  /// of DownloadToFile and must outlive it; it is not copied. An empty function is not called. What it throws ends the
  /// transfer and leaves DownloadToFile.
  virtual void SetProgressCallback(std::function<void(long, long)>& progress) = 0;
};

}  // namespace orbamira::wrapper
