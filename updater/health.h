#pragma once

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/orba_core_wrapper.h"

/// Takes a bad pack back. With the update lock held, call PrepareUpdate() before an update, ConfirmHealth() after
/// ConfirmInstall(), and ConfirmHealth() too when your program starts and IsUnchecked() says so. What a check found is
/// no offer if IsRejected() says so of its version. Do not call any of them from two threads at once.
namespace orbamira::updater {

class IPackStatusHelper;
class UpdateLock;

/// The reason of a version that ConfirmHealth() rejected.
inline constexpr const char* kUnhealthyReason = "it failed its health check";

/// A version that this appliance does not install again.
struct RejectedVersion {
  std::string version = {};  ///< as the pack's INFO has it
  std::string reason = {};   ///< a clause: "it failed its health check"
  std::time_t time = 0;      ///< when it was rejected, in seconds since the epoch

  /// Whether all three are the same.
  friend bool operator==(const RejectedVersion& one, const RejectedVersion& other) {
    return one.version == other.version && one.reason == other.reason && one.time == other.time;
  }
};

/// The versions that were rejected and that are newer than the pack that was last found healthy, the newest rejection
/// last. Needs no lock. Throws nothing.
[[nodiscard]] ORBAMIRA_EXPORT std::vector<RejectedVersion> RejectedVersions();

/// Whether the version is among them.
[[nodiscard]] ORBAMIRA_EXPORT bool IsRejected(const std::string& version);

/// The version of the previous pack; empty when there is none to go back to. Needs no lock.
[[nodiscard]] ORBAMIRA_EXPORT std::optional<std::string> PreviousVersion();

/// Whether a pack is installed whose health nobody has confirmed: an update was interrupted before it was. A pack that
/// was there when this was first asked after counts as healthy. Needs no lock.
[[nodiscard]] ORBAMIRA_EXPORT bool IsUnchecked();

/// Makes sure that a pack that is installed from now on counts as unchecked until its health is confirmed, and removes
/// the previous pack if the disk lacks room for an update. Recover() does the same. Best effort: logs a failure.
ORBAMIRA_EXPORT void PrepareUpdate(const UpdateLock& lock);

/// Whether the installed pack is healthy: its INFO file names it, the markers of its codecs are there, each of its
/// libraries can be loaded by a process of its own, and the programs in path::kHealthFolder agree. Only a pack with
/// libraries, or an appliance with such programs, takes a process: path::kHealthProgramPath, run by `core`.
///
/// A pack that is not is rejected as by RollBack(), and the result is false. If it cannot be checked, because a program
/// cannot be started say, it stays, remains unchecked, and the result is true. The log says which. Throws
/// std::system_error as RollBack() does.
[[nodiscard]] ORBAMIRA_EXPORT bool ConfirmHealth(
    const UpdateLock& lock, const IPackStatusHelper& status,
    const std::shared_ptr<wrapper::IOrbaCoreWrapper>& core = std::make_shared<wrapper::OrbaCoreWrapper>());

/// Puts the previous pack in the place of the installed one and rejects the installed version, for the reason given.
/// Without a previous pack the installed one is removed. Plugins are told as of an upgrade, or of a removal. Records
/// kStatusUpToDate, or kStatusDownloadInstallFailed when no pack is left.
///
/// The rejection is on the disk before anything moves: after an interruption Recover() completes the way back. Throws
/// std::system_error when something cannot be written or moved; Recover() then leaves a whole pack.
ORBAMIRA_EXPORT void RollBack(
    const UpdateLock& lock, const IPackStatusHelper& status, const std::string& reason,
    const std::shared_ptr<wrapper::IOrbaCoreWrapper>& core = std::make_shared<wrapper::OrbaCoreWrapper>());

}  // namespace orbamira::updater
