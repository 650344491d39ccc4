#include "updater/pack_handler.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "platform/constants.h"
#include "platform/download_wrapper.h"
#include "platform/exception.h"
#include "platform/http/shown_link.h"
#include "platform/log.h"
#include "platform/posix/flock.h"
#include "platform/posix/unique_fd.h"
#include "platform/version.h"

namespace orbamira::updater {
namespace {

constexpr int kHttpOk = 200;

using InstallException = exception::Exception<exception::kInstallFailure>;
using DownloadException = exception::Exception<exception::kDownloadFailure>;

// The codes of an InstallException.
constexpr int kExtractionFailed = 2;
constexpr int kPlacementFailed = 0;

std::string TextMember(const Json::Value& info, const char* key) { return info.get(key, "").asString(); }

void LogFailedStatus(const std::string& path, const std::string& link, int status) {
  ORBAMIRA_LOG_INFO("Failed to download pack to %s from link: %s, status code: %d", path.c_str(),
                    ShownLink(link).c_str(), status);
}

}  // namespace

std::unique_ptr<IPackHandler> PackHandler::Create() {
  auto session = wrapper::CprSession::Create();
  std::shared_ptr<IKOSHelper> kos_helper = KOSHelper::Create();
  auto core = std::make_shared<wrapper::OrbaCoreWrapper>();
  auto sdk = std::make_shared<wrapper::OrbaSDKWrapper>();
  return std::make_unique<PackHandler>(std::move(session), std::move(kos_helper), std::move(core), std::move(sdk));
}

std::unique_ptr<IPackHandler> PackHandler::CreateForTest(std::shared_ptr<wrapper::ICprSession> session,
                                                         std::shared_ptr<IKOSHelper> kos_helper,
                                                         std::shared_ptr<wrapper::IOrbaCoreWrapper> core,
                                                         std::shared_ptr<wrapper::IOrbaSDKWrapper> sdk,
                                                         const Json::Value& download_info) {
  return std::make_unique<PackHandler>(std::move(session), std::move(kos_helper), std::move(core), std::move(sdk),
                                       download_info);
}

PackHandler::PackHandler(std::shared_ptr<wrapper::ICprSession> session, std::shared_ptr<IKOSHelper> kos_helper,
                         std::shared_ptr<wrapper::IOrbaCoreWrapper> core, std::shared_ptr<wrapper::IOrbaSDKWrapper> sdk)
    : PackHandler(std::move(session), std::move(kos_helper), std::move(core), std::move(sdk), Json::Value()) {}

PackHandler::PackHandler(std::shared_ptr<wrapper::ICprSession> session, std::shared_ptr<IKOSHelper> kos_helper,
                         std::shared_ptr<wrapper::IOrbaCoreWrapper> core, std::shared_ptr<wrapper::IOrbaSDKWrapper> sdk,
                         const Json::Value& download_info)
    : session_(std::move(session)),
      kos_helper_(std::move(kos_helper)),
      core_(std::move(core)),
      sdk_(std::move(sdk)),
      download_info_(download_info) {}

bool PackHandler::CheckNewVersion() const { return CheckNewVersion(download_info_); }

bool PackHandler::CheckNewVersion(const Json::Value& info) const {
  const std::string current = GetVersionFromInfo(GetInfoPath());
  if (current.empty()) {
    ORBAMIRA_LOG_INFO("Current pack version is empty");
    return true;
  }
  const std::string offered = GetDownloadVersion(info);
  if (offered.empty()) {
    ORBAMIRA_LOG_INFO("Download pack version is empty");
    return false;
  }
  return IsNewVersion(current, offered);
}

std::string PackHandler::GetDownloadVersion(const Json::Value& info) const { return TextMember(info, param::kVersion); }

std::string PackHandler::GetDownloadLink(const Json::Value& info) const { return TextMember(info, param::kLink); }

std::string PackHandler::GetDownloadChecksum(const Json::Value& info) const {
  return TextMember(info, param::kChecksum);
}

std::string PackHandler::GetDownloadPath() const { return path::kDownloadedOpkPath; }

bool PackHandler::Download(const std::string& link, const std::string& path) {
  session_->SetUrl(cpr::Url(link));
  std::ofstream file(path, std::ios::binary);
  const cpr::Response response = session_->DownloadToFile(file);
  if (response.status_code != kHttpOk) {
    LogFailedStatus(path, link, static_cast<int>(response.status_code));
    return false;
  }
  return true;
}

bool PackHandler::DownloadWithProgress(const std::string& link, const std::string& path,
                                       std::function<void(long, long)>& progress) {
  return DownloadThrough(wrapper::DownloadWrapper::Create(), link, path, progress);
}

bool PackHandler::DownloadThrough(const std::shared_ptr<wrapper::DownloadWrapper>& download, const std::string& link,
                                  const std::string& path, std::function<void(long, long)>& progress) const {
  if (download == nullptr) {
    ORBAMIRA_LOG_ERROR("Failed to create DownloadWrapper");
    return false;
  }
  download->SetUrl(link);
  download->SetProgressCallback(progress);
  std::ofstream file(path, std::ios::binary);
  if (!file) {
    ORBAMIRA_LOG_ERROR("Open download file %s failed", path.c_str());
    return false;
  }
  int status = 0;
  try {
    status = download->DownloadToFile(file);
  } catch (const DownloadException& error) {
    ORBAMIRA_LOG_INFO("Failed to download pack: %s", error.what());
    return false;
  }
  if (status != kHttpOk) {
    LogFailedStatus(path, link, status);
    return false;
  }
  return true;
}

bool PackHandler::Install(const std::string& path) {
  if (!CreateTempPackDirectory()) {
    return false;
  }
  // All hosts of the library unpack into the same folder. Two at once would mix their files, and one would put a part
  // of a pack in place. On a file system without locks nobody is refused.
  Flock unpacking_right(OpenFile(kTargetFolder, O_RDONLY | O_DIRECTORY));
  if (!unpacking_right.TryLock() && errno == EWOULDBLOCK) {
    ORBAMIRA_LOG_INFO("Another program is installing a pack");
    return false;
  }
  const auto clear_up = [this] {
    const bool cleared = RemoveTempPackDirectory();
    if (!cleared) {
      ORBAMIRA_LOG_INFO("Failed to remove temp pack directory");
    }
    return cleared;
  };
  try {
    ReplacePack(path);
    return clear_up();
  } catch (const InstallException& error) {
    ORBAMIRA_LOG_INFO("Failed to install pack: %s", error.what());
    clear_up();
    return false;
  }
}

bool PackHandler::Uninstall() {
  if (std::rename(path::kPackFolderPath, path::kBackupPackFolderPath) < 0) {
    ORBAMIRA_LOG_INFO("Failed to rename old MIRA pack to %s", path::kBackupPackFolderPath);
    return false;
  }
  return true;
}

bool PackHandler::CreateDownloadDirectory() const {
  const std::string directory = kDownloadFolder;
  if (sdk_->MakeDirectory(directory) < 0) {
    ORBAMIRA_LOG_INFO("Failed to create download directory %s", directory.c_str());
    return false;
  }
  // Nobody else may read or change a package before it is checked. Best effort: the file has its own mode.
  std::error_code ignored;
  std::filesystem::permissions(directory, std::filesystem::perms::owner_all, ignored);
  return true;
}

bool PackHandler::RemoveDownloadDirectory() const {
  if (core_->RunCommand({path::kRmPath, "-rf", kDownloadFolder}) < 0) {
    ORBAMIRA_LOG_INFO("Failed to remove download directory %s", kDownloadFolder);
    return false;
  }
  return true;
}

std::string PackHandler::GetDownloadLink() const { return GetDownloadLink(download_info_); }

std::string PackHandler::GetDownloadVersion() const { return GetDownloadVersion(download_info_); }

std::string PackHandler::GetDownloadPackName() const { return TextMember(download_info_, param::kTitle); }

std::string PackHandler::GetInfoPath() const { return std::string(kTargetFolder) + "/" + kPackFolderName + "/INFO"; }

std::string PackHandler::GetVersionFromInfo(const std::string& info_path) const {
  return core_->GetKeyValue(info_path, param::kVersion);
}

std::string PackHandler::GetPackageNameFromInfo(const std::string& info_path) const {
  return core_->GetKeyValue(info_path, param::kPackage);
}

bool PackHandler::CreateTempPackDirectory() const {
  const std::string directory = path::kTempPackFolderPath;
  if (sdk_->MakeDirectory(directory) < 0) {
    ORBAMIRA_LOG_INFO("Failed to create temp directory %s", directory.c_str());
    return false;
  }
  return true;
}

bool PackHandler::RemoveTempPackDirectory() const {
  if (core_->RunCommand({path::kRmPath, "-rf", path::kTempPackFolderPath}) < 0) {
    ORBAMIRA_LOG_INFO("Failed to remove directory %s", path::kTempPackFolderPath);
    return false;
  }
  return true;
}

bool PackHandler::ExtractOpk(const std::string& opk_path, const std::string& target_dir) const {
  if (core_->RunCommand({path::kOrbaArchivePath, "-xf", opk_path, "-C", target_dir}) != 0) {
    ORBAMIRA_LOG_INFO("Failed to extract opk %s to %s", opk_path.c_str(), target_dir.c_str());
    return false;
  }
  const std::string payload = target_dir + "/package.tgz";
  if (core_->RunCommand({path::kTarPath, "-xf", payload, "-C", target_dir}) != 0) {
    ORBAMIRA_LOG_INFO("Failed to untar archive %s to %s", payload.c_str(), target_dir.c_str());
    return false;
  }
  if (std::remove(payload.c_str()) != 0) {
    ORBAMIRA_LOG_INFO("Failed to remove %s", payload.c_str());
    return false;
  }
  return kos_helper_->Chmod(target_dir + "/INFO", 0644) && kos_helper_->Chmod(target_dir, 0755);
}

bool PackHandler::ExtractOpk(const std::string& opk_path) const {
  if (core_->RunCommand({path::kOrbaArchivePath, "-xf", opk_path, "-C", kDownloadFolder}) < 0) {
    ORBAMIRA_LOG_INFO("Failed to extract opk %s to %s", opk_path.c_str(), kDownloadFolder);
    return false;
  }
  if (!CreateTempPackDirectory()) {
    return false;
  }
  const std::string payload = std::string(kDownloadFolder) + "/package.tgz";
  if (core_->RunCommand({path::kTarPath, "-xf", payload, "-C", path::kTempPackFolderPath}) < 0) {
    ORBAMIRA_LOG_INFO("Failed to untar archive %s to %s", payload.c_str(), path::kTempPackFolderPath);
    return false;
  }
  return true;
}

void PackHandler::ReplacePack(const std::string& opk_path) const {
  if (!ExtractOpk(opk_path, path::kTempPackFolderPath)) {
    throw InstallException("Failed to extract opk. path: " + opk_path, __FILE_NAME__, __LINE__, kExtractionFailed);
  }
  if (core_->RunCommand({path::kCpPath, "-a", path::kTempPackFolderPath, path::kPackFolderPath}) < 0) {
    if (std::rename(path::kBackupPackFolderPath, path::kPackFolderPath) < 0) {
      ORBAMIRA_LOG_INFO("Failed to rename %s back to %s", path::kBackupPackFolderPath, path::kPackFolderPath);
    }
    throw InstallException("Failed to copy extracted pack.", __FILE_NAME__, __LINE__, kPlacementFailed);
  }
  if (core_->RunCommand({path::kRmPath, "-rf", path::kBackupPackFolderPath}) < 0) {
    throw InstallException("Failed to remove backup folder.", __FILE_NAME__, __LINE__, kPlacementFailed);
  }
}

}  // namespace orbamira::updater
