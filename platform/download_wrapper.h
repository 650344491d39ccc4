#pragma once

#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "platform/export.h"

namespace orbamira::wrapper {

/// One download with progress that copes with a bad network: a transfer that breaks off resumes where it stopped. Make
/// an object for each download, set the link and the progress callback, then download. The order of the operations is a
/// binary contract. Do not use one object from two threads at once.
class ORBAMIRA_EXPORT DownloadWrapper {
 public:
  /// Makes a download by the settings of the network (proxy, ca_file, download_rate); empty when that fails. If one of
  /// them cannot be used, or libcurl cannot be loaded, the download itself fails and says so.
  static std::shared_ptr<DownloadWrapper> Create();

  /// Makes a download that fails when the body has more than `size` bytes.
  static std::shared_ptr<DownloadWrapper> CreateForSize(std::int64_t size);

  /// Makes a download whose link is the path of a regular file, such as one on a stick. It needs no network; a file
  /// that cannot be read to its end is a transport failure, and all else is as below.
  static std::shared_ptr<DownloadWrapper> CreateForFile();

  virtual ~DownloadWrapper() = default;

  /// Fetches the link and writes the body to `file`. The stream stays open and belongs to the caller. Blocks until the
  /// transfer ends.
  ///
  /// Returns the HTTP status. 200 is the only success: the whole body is then on disk and survives a power cut.
  ///
  /// Throws Exception<kDownloadFailure> when the transfer failed: no connection, a stall (under 1 byte per second for
  /// 30 seconds; connecting and the first byte together may take 60), a transfer that broke off and did not resume, or
  /// a link that is neither http nor https. Also when the body could not be written, is larger than the download_limit
  /// of the settings, or would leave less free on the disk than 5 % of it, at most 64 MiB; nothing of it then stays in
  /// `file`.
  virtual int DownloadToFile(std::ofstream& file) = 0;

  /// Sets the link to fetch. Only http and https are fetched, also behind redirects: ten at most, and never from https
  /// to http. Any other link fails when it is fetched.
  virtual void SetUrl(const std::string& link) = 0;

  /// Sets the function that DownloadToFile() calls with the bytes received so far and the bytes of the whole body (0
  /// while unknown): at the first and the last byte, and in between so rarely that the calls take at most 2 % of the
  /// time. It runs on the thread of DownloadToFile(). It is not copied, so it must outlive the download. An empty
  /// function is not called. An exception that it throws ends the transfer and leaves DownloadToFile().
  virtual void SetProgressCallback(std::function<void(long, long)>& progress) = 0;
};

}  // namespace orbamira::wrapper
