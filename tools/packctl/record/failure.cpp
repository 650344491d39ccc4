#include "tools/packctl/record/failure.h"

#include <array>
#include <cstddef>
#include <utility>

namespace orbamira::packctl {
namespace {

constexpr std::array<std::pair<FailureReason, const char*>, static_cast<std::size_t>(FailureReason::kUnexpected) + 1>
    kCodes = {{
        {FailureReason::kNoSpace, "no_space"},
        {FailureReason::kDiskError, "disk_error"},
        {FailureReason::kNotSigned, "not_signed"},
        {FailureReason::kBadSignature, "bad_signature"},
        {FailureReason::kManifestTooOld, "manifest_too_old"},
        {FailureReason::kManifestTooNew, "manifest_too_new"},
        {FailureReason::kWrongProduct, "wrong_product"},
        {FailureReason::kInfoMismatch, "info_mismatch"},
        {FailureReason::kOlderVersion, "older_version"},
        {FailureReason::kBelowMinimum, "below_minimum"},
        {FailureReason::kPackageExpired, "package_expired"},
        {FailureReason::kClockBehind, "clock_behind"},
        {FailureReason::kKeyringUnusable, "keyring_unusable"},
        {FailureReason::kBadPackage, "bad_package"},
        {FailureReason::kFileUnusable, "file_unusable"},
        {FailureReason::kWrongPack, "wrong_pack"},
        {FailureReason::kNotAsOffered, "not_as_offered"},
        {FailureReason::kChecksumMismatch, "checksum_mismatch"},
        {FailureReason::kNoNetworkModule, "no_network_module"},
        {FailureReason::kServerUnreachable, "server_unreachable"},
        {FailureReason::kServerRefused, "server_refused"},
        {FailureReason::kBadReply, "bad_reply"},
        {FailureReason::kNoPackOffered, "no_pack_offered"},
        {FailureReason::kDownloadFailed, "download_failed"},
        {FailureReason::kNotConfigured, "not_configured"},
        {FailureReason::kBadSetting, "bad_setting"},
        {FailureReason::kRequirementsUnreadable, "requirements_unreadable"},
        {FailureReason::kInstallFailed, "install_failed"},
        {FailureReason::kUnhealthy, "unhealthy"},
        {FailureReason::kRejected, "rejected"},
        {FailureReason::kWithdrawn, "withdrawn"},
        {FailureReason::kRecordUnreadable, "record_unreadable"},
        {FailureReason::kPermissionDenied, "permission_denied"},
        {FailureReason::kNotPermitted, "not_permitted"},
        {FailureReason::kInterrupted, "interrupted"},
        {FailureReason::kBusy, "busy"},
        {FailureReason::kNotConfirmed, "not_confirmed"},
        {FailureReason::kCancelled, "cancelled"},
        {FailureReason::kHeld, "held"},
        {FailureReason::kOutsideWindow, "outside_window"},
        {FailureReason::kInUse, "in_use"},
        {FailureReason::kNotInRollout, "not_in_rollout"},
        {FailureReason::kWaitsForPerson, "waits_for_person"},
        {FailureReason::kPackageRefused, "package_refused"},
        {FailureReason::kAccountFailed, "account_failed"},
        {FailureReason::kUnexpected, "unexpected"},
    }};

constexpr bool AreCodesComplete() {
  for (std::size_t i = 0; i < kCodes.size(); ++i) {
    if (kCodes[i].first != static_cast<FailureReason>(i) || kCodes[i].second == nullptr) {
      return false;
    }
  }
  return true;
}
static_assert(AreCodesComplete(), "a code for each reason, in their order");

}  // namespace

const char* CodeOf(FailureReason reason) { return kCodes.at(static_cast<std::size_t>(reason)).second; }

Failure MakeFailure(FailureReason reason, std::string message, std::string remedy) {
  return {CodeOf(reason), std::move(message), std::move(remedy)};
}

Json::Value FailureJson(const std::optional<Failure>& failure) {
  Json::Value json;
  if (failure) {
    json["code"] = failure->code;
    json["message"] = failure->message;
    json["remedy"] = failure->remedy;
  }
  return json;
}

std::optional<Failure> FailureFromJson(const Json::Value& json) {
  if (!json.isObject() || !json["code"].isString() || !json["message"].isString() || !json["remedy"].isString()) {
    return std::nullopt;
  }
  return Failure{json["code"].asString(), json["message"].asString(), json["remedy"].asString()};
}

}  // namespace orbamira::packctl
