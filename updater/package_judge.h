#pragma once

#include <memory>
#include <string>

#include "platform/export.h"
#include "platform/orba_core_wrapper.h"
#include "platform/orba_pkg_wrapper.h"

namespace orbamira::updater {

/// Package services for a host that makes its PackManager from parts. They accept a download only when orba-archive
/// would unpack it, which includes a check of the signature where there is a keyring.
///
/// So a refused package does no harm: the flows check a download before they notify plugins or move the installed pack
/// aside. PackManager::Create() takes the plain services instead. With those the signature is checked while the package
/// is unpacked, when the old pack has already been moved to its backup.
///
/// An object holds nothing but its collaborators. It is safe to use from several threads at once if they are.
class ORBAMIRA_EXPORT PackageJudge : public wrapper::IOrbaPkgWrapper {
 public:
  /// `core` runs orba-archive, `pkg` compares digests. Neither may be null.
  PackageJudge(std::shared_ptr<wrapper::IOrbaCoreWrapper> core, std::shared_ptr<wrapper::IOrbaPkgWrapper> pkg);

  /// Whether the file has the digest, as `pkg` says, and orba-archive would unpack it.
  bool CheckFileChecksum(const std::string& file_path, const std::string& checksum) override;

  /// Whether orba-archive would unpack the package now. If not, a line in the system log says so, and the reason is in
  /// the program's output. Call it for path::kDownloadedOpkPath before PackManager::Install(): since the download the
  /// keyring may have changed or a certificate may have expired.
  [[nodiscard]] bool Accepts(const std::string& package) const;

 private:
  std::shared_ptr<wrapper::IOrbaCoreWrapper> core_;
  std::shared_ptr<wrapper::IOrbaPkgWrapper> pkg_;
};

}  // namespace orbamira::updater
