#include "tools/packctl/record/failure.h"

#include <utility>

namespace orbamira::packctl {

const char* CodeOf(FailureReason reason) {
  switch (reason) {
    case FailureReason::kNoSpace:
      return "no_space";
    case FailureReason::kDiskError:
      return "disk_error";
    case FailureReason::kNotSigned:
      return "not_signed";
    case FailureReason::kBadSignature:
      return "bad_signature";
    case FailureReason::kManifestTooOld:
      return "manifest_too_old";
    case FailureReason::kManifestTooNew:
      return "manifest_too_new";
    case FailureReason::kWrongProduct:
      return "wrong_product";
    case FailureReason::kInfoMismatch:
      return "info_mismatch";
    case FailureReason::kOlderVersion:
      return "older_version";
    case FailureReason::kBelowMinimum:
      return "below_minimum";
    case FailureReason::kPackageExpired:
      return "package_expired";
    case FailureReason::kClockBehind:
      return "clock_behind";
    case FailureReason::kKeyringUnusable:
      return "keyring_unusable";
    case FailureReason::kBadPackage:
      return "bad_package";
    case FailureReason::kFileUnusable:
      return "file_unusable";
    case FailureReason::kWrongPack:
      return "wrong_pack";
    case FailureReason::kChecksumMismatch:
      return "checksum_mismatch";
    case FailureReason::kNoNetworkModule:
      return "no_network_module";
    case FailureReason::kServerUnreachable:
      return "server_unreachable";
    case FailureReason::kServerRefused:
      return "server_refused";
    case FailureReason::kBadReply:
      return "bad_reply";
    case FailureReason::kNoPackOffered:
      return "no_pack_offered";
    case FailureReason::kDownloadFailed:
      return "download_failed";
    case FailureReason::kNotConfigured:
      return "not_configured";
    case FailureReason::kRequirementsUnreadable:
      return "requirements_unreadable";
    case FailureReason::kInstallFailed:
      return "install_failed";
    case FailureReason::kUnhealthy:
      return "unhealthy";
    case FailureReason::kRejected:
      return "rejected";
    case FailureReason::kRecordUnreadable:
      return "record_unreadable";
    case FailureReason::kPermissionDenied:
      return "permission_denied";
    case FailureReason::kNotPermitted:
      return "not_permitted";
    case FailureReason::kInterrupted:
      return "interrupted";
    case FailureReason::kBusy:
      return "busy";
    case FailureReason::kNotConfirmed:
      return "not_confirmed";
    case FailureReason::kCancelled:
      return "cancelled";
    case FailureReason::kHeld:
      return "held";
    case FailureReason::kOutsideWindow:
      return "outside_window";
    case FailureReason::kInUse:
      return "in_use";
    case FailureReason::kNotInRollout:
      return "not_in_rollout";
    case FailureReason::kWaitsForPerson:
      return "waits_for_person";
    case FailureReason::kAccountFailed:
      return "account_failed";
    case FailureReason::kUnexpected:
      break;
  }
  return "unexpected";
}

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
