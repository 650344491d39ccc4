#pragma once

#include <optional>

#include "updater/pack_status_helper.h"

/// What packctl remembers of the library's permissions.
namespace orbamira::packctl {

/// The library's helper, which also remembers what it answered when a flow asked whether it may begin. A flow that was
/// refused and one that failed both give false, and only the one that began leaves something to put in order: what
/// lies there after a refusal may be another program's work under way.
class AskedStatusHelper : public updater::PackStatusHelper {
 public:
  using PackStatusHelper::PackStatusHelper;

  bool CanDoDownload(updater::PackStatus status) const override;
  bool CanDoInstall(updater::PackStatus status) const override;
  bool CanDoDownloadInstall(updater::PackStatus status) const override;

  /// Whether an install from a file may begin: it waits for nothing, so that every status permits it but one of work
  /// under way.
  bool CanDoFileInstall(updater::PackStatus status) const;

  /// Whether the last flow that asked was permitted; false before one did.
  [[nodiscard]] bool permitted() const { return permitted_; }

  /// The status for which the last flow that asked was refused; empty when it was permitted, or none asked.
  [[nodiscard]] const std::optional<updater::PackStatus>& refused_status() const { return refused_status_; }

 private:
  bool Remember(updater::PackStatus status, bool permitted) const;

  mutable bool permitted_ = false;
  mutable std::optional<updater::PackStatus> refused_status_;
};

}  // namespace orbamira::packctl
