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

enum class Due {
  kNothing,
  kRepetition,  // after a failure, and when the repetition was recorded and never began: no check finds it new
  kDownload,    // of a newer version
};

Due WhatIsDue(IPackStatusHelper& helper, const std::string& installed) {
  try {
    const PackStatus status = helper.GetPackStatus();
    if (status == kStatusNeedDownload) {
      return IsNewVersion(installed, helper.GetPackNewVersion()) ? Due::kDownload : Due::kRepetition;
    }
    const bool failed =
        status == kStatusDownloadFailed || status == kStatusInstallFailed || status == kStatusDownloadInstallFailed;
    return failed ? Due::kRepetition : Due::kNothing;
  } catch (const std::logic_error&) {  // the next recovery mends it
    return Due::kNothing;
  }
}

}  // namespace

bool RepeatFailedUpdate(const UpdateLock& lock, const PackManager& manager, IPackStatusHelper& status) {
  const std::string installed = KOSHelper::Create()->GetVersionFromPath(path::kPackInfoPath);
  const Due due = installed.empty() ? Due::kNothing : WhatIsDue(status, installed);
  Json::Value offer;
  if (due == Due::kNothing || !manager.FetchDownloadInfo(ChoosePack(manager).with_aac, offer)) {
    return false;
  }
  const std::string offered = manager.pack_handler_->GetDownloadVersion(offer);
  if (due == Due::kDownload) {
    if (!IsNewVersion(installed, offered)) {
      ORBAMIRA_LOG_INFO("The version that was to be downloaded is not on offer any more");
      status.SetAsUpToDate();
    }
    return false;
  }
  if (IsNewVersion(offered, installed)) {
    ORBAMIRA_LOG_INFO("The last update failed, but the installed version %s is newer than the offer",
                      installed.c_str());
    status.SetAsUpToDate();
    Recover(lock);  // the download of an install that failed goes
    return false;
  }
  ORBAMIRA_LOG_INFO("The last update failed and is to be done again: version %s", installed.c_str());
  status.SetAsNeedDownload(installed);
  return true;
}

}  // namespace orbamira::updater
