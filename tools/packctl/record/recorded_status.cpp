#include "tools/packctl/record/recorded_status.h"

#include <stdexcept>
#include <string>

#include "platform/constants.h"

namespace orbamira::packctl {

StatusRecord ReadStatus() {
  try {
    return updater::ReadStatusRecord();
  } catch (const std::domain_error& error) {
    throw std::domain_error(std::string(error.what()) + "; \"packctl recover\" mends it");
  }
}

StatusRecord ReadStatusIfPossible() {
  try {
    return ReadStatus();
  } catch (const std::exception&) {
    return {};
  }
}

bool IsFailed(updater::PackStatus status) {
  return status == updater::kStatusDownloadFailed || status == updater::kStatusInstallFailed ||
         status == updater::kStatusDownloadInstallFailed;
}

const char* StatusText(updater::PackStatus status) {
  return updater::kPackStatusTexts[static_cast<std::size_t>(status)];
}

Json::Value StatusJson(const StatusRecord& record) {
  namespace keys = webapi::param;
  Json::Value json;
  json[keys::kStatus] = StatusText(record.status);
  json[keys::kNewPackName] = record.new_pack_name;
  json[keys::kNewVersion] = record.new_version;
  json[keys::kDownloadSizeNow] = Json::Int64{record.download_size_now};
  json[keys::kDownloadSizeTotal] = Json::Int64{record.download_size_total};
  json[keys::kInstallStep] = record.install_step;
  return json;
}

}  // namespace orbamira::packctl
