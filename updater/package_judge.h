#pragma once

#include <memory>
#include <string>

#include "platform/export.h"
#include "platform/orba_core_wrapper.h"
#include "platform/orba_pkg_wrapper.h"

namespace orbamira::updater {

/// Package services for a host that makes its PackManager from parts: a download counts only when orba-archive would
/// also unpack it, which includes the signature where there is a keyring. So a package that is refused costs nothing:
/// the flows check a download before they tell plugins or move the installed pack aside. With the plain services, which
/// PackManager::Create() takes, the signature is checked while the package is unpacked, when the old pack has already
/// been moved to its backup.
///
/// Holds nothing but its collaborators, and may be used from several threads when they may.
class ORBAMIRA_EXPORT PackageJudge : public wrapper::IOrbaPkgWrapper {
 public:
  /// `core` runs orba-archive, `pkg` compares digests. Neither may be null.
  PackageJudge(std::shared_ptr<wrapper::IOrbaCoreWrapper> core, std::shared_ptr<wrapper::IOrbaPkgWrapper> pkg);

  /// Whether the file has the digest, as `pkg` tells, and is accepted.
  bool CheckFileChecksum(const std::string& file_path, const std::string& checksum) override;

  /// Whether orba-archive would unpack the package now. The reason why not is in its output and one line in the system
  /// log. Before PackManager::Install(), a host asks this of path::kDownloadedOpkPath: since the download the keyring
  /// may have changed or a certificate expired.
  [[nodiscard]] bool Accepts(const std::string& package) const;

 private:
  std::shared_ptr<wrapper::IOrbaCoreWrapper> core_;
  std::shared_ptr<wrapper::IOrbaPkgWrapper> pkg_;
};

}  // namespace orbamira::updater
