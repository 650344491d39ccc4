#include "updater/package_judge.h"

#include <utility>

#include "platform/constants.h"
#include "platform/log.h"

namespace orbamira::updater {

PackageJudge::PackageJudge(std::shared_ptr<wrapper::IOrbaCoreWrapper> core,
                           std::shared_ptr<wrapper::IOrbaPkgWrapper> pkg)
    : core_(std::move(core)), pkg_(std::move(pkg)) {}

bool PackageJudge::CheckFileChecksum(const std::string& file_path, const std::string& checksum) {
  return pkg_->CheckFileChecksum(file_path, checksum) && Accepts(file_path);
}

bool PackageJudge::Accepts(const std::string& package) const {
  if (core_->RunCommand({path::kOrbaArchivePath, "--verify", package}) != 0) {
    ORBAMIRA_LOG_ERROR("Package %s is not accepted", package.c_str());
    return false;
  }
  return true;
}

}  // namespace orbamira::updater
