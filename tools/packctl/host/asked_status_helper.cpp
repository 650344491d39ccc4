#include "tools/packctl/host/asked_status_helper.h"

#include "updater/status_record.h"

namespace orbamira::packctl {

bool AskedStatusHelper::CanDoDownload(updater::PackStatus status) const {
  return Remember(status, PackStatusHelper::CanDoDownload(status));
}

bool AskedStatusHelper::CanDoInstall(updater::PackStatus status) const {
  return Remember(status, PackStatusHelper::CanDoInstall(status));
}

bool AskedStatusHelper::CanDoDownloadInstall(updater::PackStatus status) const {
  return Remember(status, PackStatusHelper::CanDoDownloadInstall(status));
}

bool AskedStatusHelper::CanDoFileInstall(updater::PackStatus status) const {
  return Remember(status, !updater::IsUnderWay(status));
}

bool AskedStatusHelper::Remember(updater::PackStatus status, bool permitted) const {
  permitted_ = permitted;
  refused_status_ = permitted ? std::nullopt : std::optional(status);
  return permitted;
}

}  // namespace orbamira::packctl
