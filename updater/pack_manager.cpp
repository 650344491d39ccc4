#include "updater/pack_manager.h"

#include <json/reader.h>

#include <exception>
#include <fstream>
#include <optional>
#include <utility>

#include "platform/as_long.h"
#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/http/shown_link.h"
#include "platform/log.h"
#include "platform/network/request.h"
#include "updater/json_text.h"
#include "updater/update_request.h"

namespace orbamira::updater {
namespace {

// Gets the update server's reply. A reply that is too long has an empty body.
NetworkReply AskServer(const UpdateRequest& request) {
  NetworkRequest get{.url = request.address, .most_bytes = kJsonTextLimit};
  for (const QueryParameter& parameter : QueryOf(request)) {
    get.query.emplace_back(parameter.key, parameter.value);
  }
  return AskNetwork(get);
}

}  // namespace

std::unique_ptr<IPackManager> PackManager::Create() {
  std::shared_ptr<IKOSHelper> kos_helper = KOSHelper::Create();
  if (kos_helper == nullptr) {
    ORBAMIRA_LOG_ERROR("Failed to create \"KOSHelper\"");
    return nullptr;
  }
  std::shared_ptr<IPackStatusHelper> status_helper = PackStatusHelper::Create();
  if (status_helper == nullptr) {
    ORBAMIRA_LOG_ERROR("Failed to create \"PackStatusHelper\"");
    return nullptr;
  }
  std::shared_ptr<IPackHandler> pack_handler = PackHandler::Create();
  if (pack_handler == nullptr) {
    ORBAMIRA_LOG_ERROR("Failed to create \"PackHandler\"");
    return nullptr;
  }
  std::shared_ptr<IPluginNotifier> plugin_notifier = PluginNotifier::Create();
  if (plugin_notifier == nullptr) {
    ORBAMIRA_LOG_ERROR("Failed to create \"PluginNotifier\"");
    return nullptr;
  }
  auto core = std::make_shared<wrapper::OrbaCoreWrapper>();
  auto pkg = std::make_shared<wrapper::OrbaPkgWrapper>();
  return std::make_unique<PackManager>(std::move(core), std::move(pkg), std::move(kos_helper), std::move(status_helper),
                                       std::move(pack_handler), std::move(plugin_notifier));
}

PackManager::PackManager(std::shared_ptr<wrapper::IOrbaCoreWrapper> core, std::shared_ptr<wrapper::IOrbaPkgWrapper> pkg,
                         std::shared_ptr<IKOSHelper> kos_helper, std::shared_ptr<IPackStatusHelper> status_helper,
                         std::shared_ptr<IPackHandler> pack_handler, std::shared_ptr<IPluginNotifier> plugin_notifier)
    : core_(std::move(core)),
      pkg_(std::move(pkg)),
      kos_helper_(std::move(kos_helper)),
      status_helper_(std::move(status_helper)),
      pack_handler_(std::move(pack_handler)),
      plugin_notifier_(std::move(plugin_notifier)) {}

bool PackManager::CheckNewPack() const {
  try {
    const bool with_aac = ChoosePack(*this).with_aac;
    Json::Value pack_info;
    if (!FetchDownloadInfo(with_aac, pack_info)) {
      ORBAMIRA_LOG_INFO("FetchDownloadInfo failed");
      return false;
    }
    // A machine that lacks a codec is offered the pack even if its version is not newer.
    if (!IsAacNeeded() && !pack_handler_->CheckNewVersion(pack_info)) {
      return false;
    }
    status_helper_->SetAsNeedDownload(pack_handler_->GetDownloadVersion(pack_info));
    return true;
  } catch (const std::exception& error) {
    ORBAMIRA_LOG_ERROR("Check new pack failed: %s", error.what());
    return false;
  }
}

bool PackManager::DownloadAndInstall() const {
  try {
    const PackStatus status = status_helper_->GetPackStatus();
    if (!status_helper_->CanDoDownloadInstall(status)) {
      ORBAMIRA_LOG_ERROR("Invalid pack status: %s", kPackStatusTexts[static_cast<std::size_t>(status)]);
      return false;
    }
    status_helper_->SetAsDownloadInstalling();
    std::function<void(long, long)> progress = [this](long now, long total) {
      status_helper_->SetAsDownloadInstalling(now, total);
    };
    std::function<void(InstallStep)> step = [this](InstallStep current) {
      status_helper_->SetAsDownloadInstalling(current);
    };
    const bool with_aac = ChoosePack(*this).with_aac;
    Json::Value pack_info;
    if (!DownloadOffer(with_aac, pack_info, progress)) {
      status_helper_->SetAsDownloadInstallFailed();
      return false;
    }
    const std::string version = pack_handler_->GetDownloadVersion(pack_info);
    const std::string name = GetDownloadPackName(with_aac);
    if (!DoInstall(version, name, step)) {
      ORBAMIRA_LOG_ERROR("DoInstall failed");
      status_helper_->SetAsDownloadInstallFailed();
      return false;
    }
    status_helper_->SetAsUpToDate();
    return true;
  } catch (const std::exception& error) {
    ORBAMIRA_LOG_ERROR("Download and install failed: %s", error.what());
    return false;
  }
}

bool PackManager::Download() const {
  try {
    const PackStatus status = status_helper_->GetPackStatus();
    if (!status_helper_->CanDoDownload(status)) {
      ORBAMIRA_LOG_ERROR("Invalid pack status: %s", kPackStatusTexts[static_cast<std::size_t>(status)]);
      return false;
    }
    status_helper_->SetAsDownloading();
    std::function<void(long, long)> progress = [this](long now, long total) {
      status_helper_->SetAsDownloading(now, total);
    };
    const bool with_aac = ChoosePack(*this).with_aac;
    Json::Value pack_info;
    if (!DownloadOffer(with_aac, pack_info, progress)) {
      status_helper_->SetAsDownloadFailed();
      return false;
    }
    const std::string name = GetDownloadPackName(with_aac);
    const std::string version = pack_handler_->GetDownloadVersion(pack_info);
    status_helper_->SetAsNeedInstall(version, name);
    return true;
  } catch (const std::exception& error) {
    ORBAMIRA_LOG_ERROR("Download failed: %s", error.what());
    return false;
  }
}

bool PackManager::Install() const {
  try {
    const PackStatus status = status_helper_->GetPackStatus();
    const std::string name = status_helper_->GetPackNewName();
    const std::string version = status_helper_->GetPackNewVersion();
    if (!status_helper_->CanDoInstall(status)) {
      ORBAMIRA_LOG_ERROR("Invalid pack status: %s", kPackStatusTexts[static_cast<std::size_t>(status)]);
      return false;
    }
    status_helper_->SetAsInstalling();
    std::function<void(InstallStep)> step = [this](InstallStep current) { status_helper_->SetAsInstalling(current); };
    if (!DoInstall(version, name, step)) {
      ORBAMIRA_LOG_ERROR("Failed to install");
      status_helper_->SetAsInstallFailed(version, name);
      return false;
    }
    status_helper_->SetAsUpToDate();
    return true;
  } catch (const std::exception& error) {
    ORBAMIRA_LOG_ERROR("Install failed: %s", error.what());
    return false;
  }
}

UpdatePolicy PackManager::GetPackUpdatePolicy() const { return kPolicyAutoDownloadManualInstall; }

void PackManager::SetPackUpdatePolicy(UpdatePolicy /*policy*/) {}

bool PackManager::IsAacNeeded() const {
  return !HasAacCurrently() && kos_helper_->FileExist(path::kCodecRequirementsPath) && IsCodecRequested(kAac);
}

bool PackManager::IsHevcNeeded() const { return false; }

bool PackManager::CheckPackExists() const { return kos_helper_->FileExist(path::kPackInfoPath); }

long PackManager::GetPackLastUpdateTime() const { return AsLong(kos_helper_->FileMtime(path::kPackInfoPath)); }

bool PackManager::RemovePack() const {
  if (core_->RunCommand({path::kRmPath, "-rf", path::kPackFolderPath}) != 0) {
    ORBAMIRA_LOG_INFO("Failed to remove pack folder %s", path::kPackFolderPath);
    return false;
  }
  return true;
}

bool PackManager::IsCodecRequested(const std::string& codec) const {
  const store::FileLock lock(path::kCodecRequirementsLock);
  std::ifstream file(path::kCodecRequirementsPath);
  file.peek();  // fails for a folder, which can be opened but not read
  if (!file.is_open() || file.bad()) {
    return false;
  }
  const std::optional<bool> asks = AsksForCodec(ReadJsonText(file), codec);
  if (!asks) {
    ORBAMIRA_LOG_ERROR("Failed to parse %s", path::kCodecRequirementsPath);
  }
  return asks.value_or(false);
}

bool PackManager::HasAacCurrently() const { return kos_helper_->FileExist(path::kHasAacPath); }

bool PackManager::HasHevcCurrently() const { return kos_helper_->FileExist(path::kHasHevcPath); }

bool PackManager::FetchDownloadInfo(bool with_aac, Json::Value& pack_info) const {
  const UpdateRequest request = MakeUpdateRequest(*kos_helper_);
  if (!IsComplete(request)) {
    ORBAMIRA_LOG_ERROR("Bad request: pack update server url: %s, pkg version: %s, kos version: %s, kos unique: %s",
                       ShownLink(request.address).c_str(), request.package_version.c_str(),
                       request.system_version.c_str(), request.unique.c_str());
    return false;
  }

  const NetworkReply reply = AskServer(request);
  if (reply.status == 0) {
    ORBAMIRA_LOG_ERROR("Failed to send request with error: %s", reply.error.c_str());
    return false;
  }
  constexpr long kOk = 200;
  if (reply.status != kOk) {
    ORBAMIRA_LOG_ERROR("Failed to send request with status: %d", static_cast<int>(reply.status));
    return false;
  }

  Json::Value root;
  if (!Json::Reader().parse(reply.body, root)) {
    ORBAMIRA_LOG_ERROR("Failed to parse response");
    return false;
  }
  const std::string name = GetDownloadPackName(with_aac);
  pack_info = root.get(name, Json::Value());
  if (pack_info.isNull()) {
    ORBAMIRA_LOG_ERROR("Get %s info failed", name.c_str());
    return false;
  }
  return true;
}

bool PackManager::VerifyChecksum(const Json::Value& pack_info) const {
  const std::string path = pack_handler_->GetDownloadPath();
  const std::string checksum = pack_handler_->GetDownloadChecksum(pack_info);
  return !checksum.empty() && pkg_->CheckFileChecksum(path, checksum);
}

std::string PackManager::GetDownloadPackName(bool with_aac) const { return PackName(with_aac); }

bool PackManager::DoDownload(const std::string& link, std::function<void(long, long)>& progress) const {
  if (!pack_handler_->CreateDownloadDirectory()) {
    ORBAMIRA_LOG_ERROR("Failed to create download directory");
    return false;
  }
  return pack_handler_->DownloadWithProgress(link, pack_handler_->GetDownloadPath(), progress);
}

bool PackManager::DoInstall(const std::string& version, const std::string& name,
                            std::function<void(InstallStep)>& step) const {
  NotifyPluginStatus status = kNotifyInstall;
  if (kos_helper_->DirExist(path::kPackFolderPath)) {
    const std::string old_name = kos_helper_->GetPackageNameFromPath(path::kPackInfoPath);
    const std::string old_version = kos_helper_->GetVersionFromPath(path::kPackInfoPath);
    step(kStepPreUninstall);
    const auto uninstall = [this, &step] { return DoUninstallStep(step); };
    if (!NotifyStep(kEventUninstall, uninstall, old_name, old_version, kNotifyUpgrade)) {
      return false;
    }
    step(kStepPostUninstall);
    status = kNotifyUpgrade;
  }
  const auto install = [this, &step] { return DoInstallStep(step); };
  if (!NotifyStep(kEventInstall, install, name, version, status)) {
    return false;
  }
  step(kStepPostInstall);
  return true;
}

bool PackManager::DoInstallStep(std::function<void(InstallStep)>& step) const {
  const std::string path = pack_handler_->GetDownloadPath();
  step(kStepInstall);
  if (!pack_handler_->Install(path)) {
    ORBAMIRA_LOG_ERROR("Failed to install");
    return false;
  }
  if (!pack_handler_->RemoveDownloadDirectory()) {
    ORBAMIRA_LOG_ERROR("Failed to remove download directory");
    return false;
  }
  return true;
}

bool PackManager::DoUninstallStep(std::function<void(InstallStep)>& step) const {
  step(kStepUninstall);
  if (!pack_handler_->Uninstall()) {
    ORBAMIRA_LOG_ERROR("Failed to uninstall");
    return false;
  }
  return true;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is the interface's
bool PackManager::NotifyStep(NotifyPluginEvent event, std::function<bool()> action, const std::string& name,
                             const std::string& version, NotifyPluginStatus status) const {
  // First of all, because the notifier does not check its tables.
  const char* const event_text = kNotifyPluginEventTexts.at(static_cast<std::size_t>(event));
  const auto notify = [&](NotifyPluginTiming timing) {
    if (!plugin_notifier_->NotifyPlugin(event, timing, name, version, status)) {
      ORBAMIRA_LOG_ERROR("Failed to notify: [timing]: %s, [event]: %s",
                         kNotifyPluginTimingTexts[static_cast<std::size_t>(timing)], event_text);
    }
  };
  notify(kTimingPre);
  if (!action()) {
    ORBAMIRA_LOG_ERROR("Failed to %s", event_text);
    return false;
  }
  notify(kTimingPost);
  return true;
}

bool PackManager::DownloadOffer(bool with_aac, Json::Value& pack_info,
                                std::function<void(long, long)>& progress) const {
  if (!FetchDownloadInfo(with_aac, pack_info)) {
    ORBAMIRA_LOG_ERROR("FetchDownloadInfo failed");
    return false;
  }
  if (!DoDownload(pack_handler_->GetDownloadLink(pack_info), progress)) {
    ORBAMIRA_LOG_ERROR("DoDownload failed");
    return false;
  }
  if (!VerifyChecksum(pack_info)) {
    ORBAMIRA_LOG_ERROR("Failed to verify checksum of downloaded file.");
    return false;
  }
  return true;
}

}  // namespace orbamira::updater
