#include "updater/kos_helper.h"

#include <sys/stat.h>

#include <utility>

#include "platform/constants.h"
#include "platform/filesystem.h"
#include "platform/log.h"

namespace orbamira::updater {

std::unique_ptr<IKOSHelper> KOSHelper::Create() {
  return std::make_unique<KOSHelper>(std::make_shared<wrapper::OrbaCoreWrapper>(),
                                     std::make_shared<wrapper::OrbaZeloWrapper>());
}

std::unique_ptr<IKOSHelper> KOSHelper::CreateForTest(std::shared_ptr<wrapper::IOrbaCoreWrapper> core,
                                                     std::shared_ptr<wrapper::IOrbaZeloWrapper> zelo) {
  return std::make_unique<KOSHelper>(std::move(core), std::move(zelo));
}

KOSHelper::KOSHelper(std::shared_ptr<wrapper::IOrbaCoreWrapper> core, std::shared_ptr<wrapper::IOrbaZeloWrapper> zelo)
    : core_(std::move(core)), zelo_(std::move(zelo)) {}

bool KOSHelper::Chmod(const std::string& path, unsigned int mode) const {
  if (chmod(path.c_str(), mode) != 0) {
    ORBAMIRA_LOG_ERROR("Faild to chmod on path %s", path.c_str());
    return false;
  }
  return true;
}

bool KOSHelper::DirExist(const std::string& path) const {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && (S_ISDIR(status.st_mode) || S_ISLNK(status.st_mode));
}

bool KOSHelper::FileExist(const std::string& path) const { return filesystem::DoseFileExist(path); }

time_t KOSHelper::FileMtime(const std::string& path) const {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

std::string KOSHelper::GetBuildNumber() const {
  return core_->GetKeyValue(common::kDefaultVersionPath, common::kBuildNumber);
}

std::string KOSHelper::GetMajorVersion() const {
  return core_->GetKeyValue(common::kDefaultVersionPath, common::kMajorVersion);
}

std::string KOSHelper::GetMinorVersion() const {
  return core_->GetKeyValue(common::kDefaultVersionPath, common::kMinorVersion);
}

std::string KOSHelper::GetPackageNameFromPath(const std::string& path) const {
  return core_->GetKeyValue(path, param::kPackage);
}

std::string KOSHelper::GetPackUpdateServerUrl() const {
  std::string url = core_->GetKeyValue(path::kPkgSetting, common::kPackUpdateServer);
  if (url.empty()) {
    url = core_->GetKeyValue(path::kDefaultPkgSetting, common::kPackUpdateServer);
  }
  return url;
}

std::string KOSHelper::GetTimezone() const { return zelo_->GetTimezone(); }

std::string KOSHelper::GetUnique() const { return core_->GetKeyValue(common::kDefaultOrbaInfoPath, common::kUnique); }

std::string KOSHelper::GetUserId() const { return zelo_->GetUserId(); }

std::string KOSHelper::GetVersion() const {
  std::string version;
  version.append(GetMajorVersion()).append(".").append(GetMinorVersion()).append("-").append(GetBuildNumber());
  return version;
}

std::string KOSHelper::GetVersionFromPath(const std::string& path) const {
  return core_->GetKeyValue(path, common::kVersion);
}

}  // namespace orbamira::updater
