#include "tools/packctl/view/status_words.h"

#include "updater/pack_status_helper.h"

namespace orbamira::packctl {

const char* StatusMeaning(updater::PackStatus status) {
  switch (status) {
    case updater::kStatusLost:
      return "nothing is recorded yet";
    case updater::kStatusNeedDownload:
      return "a new pack waits to be downloaded";
    case updater::kStatusDownloading:
      return "a pack is being downloaded";
    case updater::kStatusDownloadFailed:
      return "the last download failed";
    case updater::kStatusNeedInstall:
      return "a downloaded pack waits to be installed";
    case updater::kStatusInstalling:
      return "a pack is being installed";
    case updater::kStatusInstallFailed:
      return "the last install failed";
    case updater::kStatusDownloadingInstalling:
      return "a pack is being downloaded and installed";
    case updater::kStatusDownloadInstallFailed:
      return "the last update failed";
    case updater::kStatusUpToDate:
      break;
  }
  return "the last update succeeded";
}

std::string PermittedCommands(updater::PackStatus status) {
  const updater::PackStatusHelper rules(nullptr);
  std::string commands = "check";
  if (rules.CanDoDownload(status)) {
    commands += ", download";
  }
  if (rules.CanDoInstall(status)) {
    commands += ", install";
  }
  if (rules.CanDoDownloadInstall(status)) {
    commands += ", update";
  }
  return commands;
}

const char* NextCommand(updater::PackStatus status) {
  switch (status) {
    case updater::kStatusLost:
    case updater::kStatusUpToDate:
      return "check";
    case updater::kStatusNeedDownload:
    case updater::kStatusDownloadInstallFailed:
      return "update";
    case updater::kStatusDownloadFailed:
      return "download";
    case updater::kStatusNeedInstall:
    case updater::kStatusInstallFailed:
      return "install";
    case updater::kStatusDownloading:
    case updater::kStatusInstalling:
    case updater::kStatusDownloadingInstalling:
      break;
  }
  return "recover";
}

const char* StepWords(const std::string& step) {
  if (step == "pre_uninstall") {
    return "telling applications that the old pack goes";
  }
  if (step == "uninstall") {
    return "moving the old pack aside";
  }
  if (step == "post_uninstall") {
    return "the old pack is out of the way";
  }
  if (step == "pre_install") {
    return "telling applications that the new pack comes";
  }
  if (step == "install") {
    return "unpacking the new pack and putting it in place";
  }
  if (step == "post_install") {
    return "the new pack is in place";
  }
  return "";
}

}  // namespace orbamira::packctl
