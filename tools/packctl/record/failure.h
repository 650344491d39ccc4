#pragma once

#include <json/value.h>

#include <optional>
#include <string>

/// Why a command failed, or waits, as answers and the history keep it: a code for programs, words for people, and what
/// to do.
namespace orbamira::packctl {

/// The reasons. Scripts, the page and translators know them by their codes, so a code keeps its meaning for ever.
enum class FailureReason {
  kNoSpace,
  kDiskError,
  kNotSigned,
  kBadSignature,
  kManifestTooOld,
  kManifestTooNew,
  kWrongProduct,
  kInfoMismatch,
  kOlderVersion,
  kBelowMinimum,
  kPackageExpired,
  kClockBehind,
  kKeyringUnusable,
  kBadPackage,
  kFileUnusable,
  kWrongPack,
  kNotAsOffered,
  kChecksumMismatch,
  kNoNetworkModule,
  kServerUnreachable,
  kServerRefused,
  kBadReply,
  kNoPackOffered,
  kDownloadFailed,
  kNotConfigured,
  kBadSetting,
  kRequirementsUnreadable,
  kInstallFailed,
  kUnhealthy,
  kRejected,
  kWithdrawn,
  kRecordUnreadable,
  kPermissionDenied,
  kNotPermitted,
  kInterrupted,
  kBusy,
  kNotConfirmed,
  kCancelled,
  kHeld,
  kOutsideWindow,
  kInUse,
  kNotInRollout,
  kWaitsForPerson,
  kPackageRefused,
  kAccountFailed,
  kUnexpected,
};

/// The reason's code: "no_space".
const char* CodeOf(FailureReason reason);

/// Why a command failed, was refused, or waits.
struct Failure {
  std::string code = {};     ///< of a FailureReason
  std::string message = {};  ///< a clause: "the disk is full"
  std::string remedy = {};   ///< whole sentences, a command mostly; may be empty

  friend bool operator==(const Failure&, const Failure&) = default;
};

/// A refusal whose words are known.
Failure MakeFailure(FailureReason reason, std::string message, std::string remedy);

/// As an answer or an entry of the history holds it: {"code", "message", "remedy"}; null without a failure.
Json::Value FailureJson(const std::optional<Failure>& failure);

/// What FailureJson() made; empty for any other value.
std::optional<Failure> FailureFromJson(const Json::Value& json);

}  // namespace orbamira::packctl
