#include "updater/enumerations.h"

#include <stdexcept>
#include <unordered_map>

namespace orbamira::updater {
namespace {

template <typename Value>
using TextMap = std::unordered_map<std::string, Value>;

const TextMap<UpdatePolicy> kUpdatePolicies = {
    {"auto_download_auto_install", kPolicyAutoDownloadAutoInstall},
    {"auto_download_manual_install", kPolicyAutoDownloadManualInstall},
    {"manual_download_manual_install", kPolicyManualDownloadManualInstall},
};

const TextMap<PackStatus> kPackStatuses = {
    {"lost", kStatusLost},
    {"need_download", kStatusNeedDownload},
    {"downloading", kStatusDownloading},
    {"download_failed", kStatusDownloadFailed},
    {"need_install", kStatusNeedInstall},
    {"installing", kStatusInstalling},
    {"install_failed", kStatusInstallFailed},
    {"downloading_installing", kStatusDownloadingInstalling},
    {"download_install_failed", kStatusDownloadInstallFailed},
    {"up_to_date", kStatusUpToDate},
};

const TextMap<InstallStep> kInstallSteps = {
    {"", kStepNone},
    {"pre_install", kStepPreInstall},
    {"install", kStepInstall},
    {"post_install", kStepPostInstall},
    {"pre_uninstall", kStepPreUninstall},
    {"uninstall", kStepUninstall},
    {"post_uninstall", kStepPostInstall},
};

// Standard libraries word the error of unordered_map::at differently; the text is logged, so it is given here.
template <typename Value>
Value Lookup(const TextMap<Value>& values, const std::string& text) {
  const auto found = values.find(text);
  if (found == values.end()) {
    throw std::out_of_range("_Map_base::at");
  }
  return found->second;
}

}  // namespace

UpdatePolicy UpdatePolicyFromText(const std::string& text) { return Lookup(kUpdatePolicies, text); }

PackStatus PackStatusFromText(const std::string& text) { return Lookup(kPackStatuses, text); }

InstallStep InstallStepFromText(const std::string& text) { return Lookup(kInstallSteps, text); }

}  // namespace orbamira::updater
