#include "updater/pack_status_helper.h"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <system_error>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/log.h"

namespace orbamira::updater {

namespace keys = webapi::param;

namespace {

// The most bytes that the text takes in a JSON store.
std::size_t StoredSize(const std::string& text) {
  constexpr std::size_t kEscape = 6;  // \u001b
  const auto needs_escape = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '"' || c == '\\'; };
  const auto escaped = static_cast<std::size_t>(std::count_if(text.begin(), text.end(), needs_escape));
  return text.size() + escaped * (kEscape - 1);
}

// Checked before the store is cleared: a save that fails in the middle would leave half a record.
void ExpectToFit(const PackStatusData& data) {
  constexpr std::size_t kOtherTexts = 1024;
  if (StoredSize(data.new_pack_name) + StoredSize(data.new_version) > store::kMaxStoreSize - kOtherTexts) {
    throw std::length_error("the pack's name and version are too long to be recorded");
  }
}

// Holds the lock: opening may set a broken file aside, and must not do so with one that is being saved.
std::shared_ptr<store::IKeyValueStore> OpenStore() {
  try {
    const store::FileLock lock(path::kPackStatusLock);
    return store::FileKeyValueStore::Create(path::kPackStatusFile);
  } catch (const std::system_error& error) {
    ORBAMIRA_LOG_ERROR("Cannot use the store: %s", error.what());
    return nullptr;
  }
}

}  // namespace

std::unique_ptr<IPackStatusHelper> PackStatusHelper::Create() {
  std::shared_ptr<store::IKeyValueStore> store = OpenStore();
  if (store == nullptr) {
    ORBAMIRA_LOG_ERROR("Failed to create \"FileKeyValueStore\"");
    return nullptr;
  }
  return std::make_unique<PackStatusHelper>(std::move(store));
}

PackStatusHelper::PackStatusHelper(std::shared_ptr<store::IKeyValueStore> store) : store_(std::move(store)) {}

PackStatus PackStatusHelper::GetPackStatus() {
  RetrieveStatusData();
  return cache_->status;
}

std::string PackStatusHelper::GetPackNewName() { return Cached().new_pack_name; }

std::string PackStatusHelper::GetPackNewVersion() { return Cached().new_version; }

std::pair<std::int32_t, std::int32_t> PackStatusHelper::GetPackDownloadProgress() {
  const PackStatusData& data = Cached();
  return {static_cast<std::int32_t>(data.download_size_now), static_cast<std::int32_t>(data.download_size_total)};
}

InstallStep PackStatusHelper::GetInstallProgress() { return Cached().install_step; }

void PackStatusHelper::SetAsNeedDownload(const std::string& new_version) const {
  SaveStatusData({.status = kStatusNeedDownload, .new_version = new_version});
}

void PackStatusHelper::SetAsDownloading() const { SaveStatusData({.status = kStatusDownloading}); }

void PackStatusHelper::SetAsDownloadFailed() const { SaveStatusData({.status = kStatusDownloadFailed}); }

void PackStatusHelper::SetAsNeedInstall(const std::string& new_version, const std::string& new_pack_name) const {
  SaveStatusData({.status = kStatusNeedInstall, .new_pack_name = new_pack_name, .new_version = new_version});
}

void PackStatusHelper::SetAsInstalling() const { SaveStatusData({.status = kStatusInstalling}); }

void PackStatusHelper::SetAsInstallFailed(const std::string& new_version, const std::string& new_pack_name) const {
  SaveStatusData({.status = kStatusInstallFailed, .new_pack_name = new_pack_name, .new_version = new_version});
}

void PackStatusHelper::SetAsDownloadInstalling() const { SaveStatusData({.status = kStatusDownloadingInstalling}); }

void PackStatusHelper::SetAsDownloadInstallFailed() const { SaveStatusData({.status = kStatusDownloadInstallFailed}); }

void PackStatusHelper::SetAsUpToDate() const { SaveStatusData({.status = kStatusUpToDate}); }

void PackStatusHelper::SetAsDownloading(long download_size_now, long download_size_total) const {
  SaveStatusData({.status = kStatusDownloading,
                  .download_size_now = download_size_now,
                  .download_size_total = download_size_total});
}

void PackStatusHelper::SetAsDownloadInstalling(long download_size_now, long download_size_total) const {
  SaveStatusData({.status = kStatusDownloadingInstalling,
                  .download_size_now = download_size_now,
                  .download_size_total = download_size_total});
}

void PackStatusHelper::SetAsInstalling(InstallStep step) const {
  SaveStatusData({.status = kStatusInstalling, .install_step = step});
}

void PackStatusHelper::SetAsDownloadInstalling(InstallStep step) const {
  SaveStatusData({.status = kStatusDownloadingInstalling, .install_step = step});
}

bool PackStatusHelper::CanDoDownload(PackStatus status) const {
  return status == kStatusNeedDownload || status == kStatusDownloadFailed;
}

bool PackStatusHelper::CanDoInstall(PackStatus status) const {
  return status == kStatusNeedInstall || status == kStatusInstallFailed;
}

bool PackStatusHelper::CanDoDownloadInstall(PackStatus status) const {
  return status == kStatusLost || status == kStatusNeedDownload || status == kStatusNeedInstall ||
         status == kStatusDownloadInstallFailed || status == kStatusUpToDate;
}

void PackStatusHelper::SaveStatusData(const PackStatusData& data) const {
  ExpectToFit(data);
  const store::FileLock lock(path::kPackStatusLock);
  store_->Clear();
  store_->Set(keys::kStatus, kPackStatusTexts[static_cast<std::size_t>(data.status)]);
  store_->Set(keys::kNewPackName, data.new_pack_name);
  store_->Set(keys::kNewVersion, data.new_version);
  store_->Set(keys::kDownloadSizeNow, std::to_string(data.download_size_now));
  store_->Set(keys::kDownloadSizeTotal, std::to_string(data.download_size_total));
  store_->Set(keys::kInstallStep, kInstallStepTexts[static_cast<std::size_t>(data.install_step)]);
}

void PackStatusHelper::RetrieveStatusData() {
  const store::FileLock lock(path::kPackStatusLock);
  const auto decode = [this](const char* key, const std::function<void(const std::string&)>& into_field) {
    if (store_->Has(key)) {
      into_field(store_->Get(key));
    }
  };
  auto data = std::make_shared<PackStatusData>();
  decode(keys::kStatus, [&](const std::string& text) { data->status = PackStatusFromText(text); });
  decode(keys::kNewPackName, [&](const std::string& text) { data->new_pack_name = text; });
  decode(keys::kNewVersion, [&](const std::string& text) { data->new_version = text; });
  decode(keys::kDownloadSizeNow, [&](const std::string& text) { data->download_size_now = std::stoll(text); });
  decode(keys::kDownloadSizeTotal, [&](const std::string& text) { data->download_size_total = std::stoll(text); });
  decode(keys::kInstallStep, [&](const std::string& text) { data->install_step = InstallStepFromText(text); });
  cache_ = std::move(data);
}

const PackStatusData& PackStatusHelper::Cached() {
  if (cache_ == nullptr) {
    RetrieveStatusData();
  }
  return *cache_;
}

}  // namespace orbamira::updater
