#include "tools/packctl/record/status_reader.h"

#include <filesystem>
#include <stdexcept>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/key_value_store.h"
#include "tools/packctl/view/status_words.h"

namespace orbamira::packctl {

namespace keys = webapi::param;

namespace {

StatusRecord Decoded(store::IKeyValueStore& store) {
  StatusRecord record;
  if (store.Has(keys::kStatus)) {
    record.status = updater::PackStatusFromText(store.Get(keys::kStatus));
  }
  record.new_pack_name = store.Get(keys::kNewPackName);
  record.new_version = store.Get(keys::kNewVersion);
  if (store.Has(keys::kDownloadSizeNow)) {
    record.download_size_now = std::stoll(store.Get(keys::kDownloadSizeNow));
  }
  if (store.Has(keys::kDownloadSizeTotal)) {
    record.download_size_total = std::stoll(store.Get(keys::kDownloadSizeTotal));
  }
  record.install_step = store.Get(keys::kInstallStep);
  static_cast<void>(updater::InstallStepFromText(record.install_step));  // throws for a text that is no step
  return record;
}

}  // namespace

Json::Value StatusRecord::ToJson() const {
  Json::Value json;
  json[keys::kStatus] = StatusText(status);
  json[keys::kNewPackName] = new_pack_name;
  json[keys::kNewVersion] = new_version;
  json[keys::kDownloadSizeNow] = Json::Int64{download_size_now};
  json[keys::kDownloadSizeTotal] = Json::Int64{download_size_total};
  json[keys::kInstallStep] = install_step;
  return json;
}

StatusRecord ReadStatus() {
  const store::FileLock lock(path::kPackStatusLock);
  if (!std::filesystem::exists(path::kPackStatusFile)) {
    return {};
  }
  const auto store = store::FileKeyValueStore::Create(path::kPackStatusFile);
  if (store == nullptr) {
    throw std::runtime_error(std::string("cannot use the status store ") + path::kPackStatusFile);
  }
  try {
    return Decoded(*store);
  } catch (const std::logic_error&) {
    throw std::domain_error("the recorded status cannot be read; \"packctl recover\" mends it");
  }
}

}  // namespace orbamira::packctl
