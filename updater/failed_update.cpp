#include <stdexcept>
#include <string>

#include "platform/constants.h"
#include "platform/log.h"
#include "platform/version.h"
#include "updater/kos_helper.h"
#include "updater/pack_manager.h"
#include "updater/pack_status_helper.h"
#include "updater/recovery.h"
#include "updater/update_request.h"

namespace orbamira::updater {
namespace {

// After a failure, and when the repetition was recorded and never began: no check finds the installed version new.
bool IsDueAgain(IPackStatusHelper& helper, const std::string& installed) {
  try {
    const PackStatus status = helper.GetPackStatus();
    if (status == kStatusNeedDownload) {
      return !IsNewVersion(installed, helper.GetPackNewVersion());
    }
    return status == kStatusDownloadFailed || status == kStatusInstallFailed || status == kStatusDownloadInstallFailed;
  } catch (const std::logic_error&) {  // the next recovery mends it
    return false;
  }
}

}  // namespace

bool RepeatFailedUpdate(const UpdateLock& /*lock*/, const PackManager& manager, IPackStatusHelper& status) {
  const std::string installed = KOSHelper::Create()->GetVersionFromPath(path::kPackInfoPath);
  Json::Value offer;
  if (installed.empty() || !IsDueAgain(status, installed) ||
      !manager.FetchDownloadInfo(ChoosePack(manager).with_aac, offer)) {
    return false;
  }
  if (IsNewVersion(offer.get(param::kVersion, "").asString(), installed)) {
    ORBAMIRA_LOG_INFO("The last update failed, but the installed version %s is newer than the offer",
                      installed.c_str());
    status.SetAsUpToDate();
    return false;
  }
  ORBAMIRA_LOG_INFO("The last update failed and is to be done again: version %s", installed.c_str());
  status.SetAsNeedDownload(installed);
  return true;
}

}  // namespace orbamira::updater
