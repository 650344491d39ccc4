#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

/// What keeps a pack safe around the flows of IPackManager. A host that takes the update lock calls Recover() when it
/// starts and after a flow that failed, ConfirmInstall() after one that installed, and RepeatFailedUpdate() when a
/// check found nothing new. None of it is for two threads at once.
namespace orbamira::updater {

class IPackStatusHelper;
class PackManager;
class UpdateLock;

/// What a recovery found and did, one sentence each.
struct RecoveryReport {
  std::vector<std::string> done = {};    ///< what was put in order
  std::vector<std::string> failed = {};  ///< what could not be
};

/// Puts in order what an interrupted update left behind: the pack and its backup, temporary folders and files, the
/// download, and a recorded status that says work is under way. The status becomes what is true: kStatusUpToDate when
/// all but the last record was done, or when nothing was recorded beside an installed pack, else a failed one.
///
/// Each step stands alone: one that fails is reported and the next is taken. Doing it twice is doing it once. What it
/// did outlives a power cut. Whatever it says is also logged. Throws nothing.
ORBAMIRA_EXPORT RecoveryReport Recover(const UpdateLock& lock);

/// The folders and files that an interrupted update may have left and that a recovery would put away, in order of their
/// names; while an update is running, what it needs. Changes nothing and needs no lock. Throws std::system_error.
[[nodiscard]] ORBAMIRA_EXPORT std::vector<std::string> FindLeftovers();

/// Whether a pack is in place after IPackManager::Install() or DownloadAndInstall() returned true: to them a copy and a
/// removal are done whatever exit status the program gave. Ends removals that met an error; without a pack, records
/// kStatusDownloadInstallFailed, and Recover() brings the old pack back. Throws std::system_error when that cannot be
/// recorded.
[[nodiscard]] ORBAMIRA_EXPORT bool ConfirmInstall(const UpdateLock& lock, const IPackStatusHelper& status);

/// Ends removals that were cut short or met an error: what ConfirmInstall() does for a download. Throws nothing.
ORBAMIRA_EXPORT void EndRemovals(const UpdateLock& lock);

/// Whether the last update failed and is to be done again, for a check that found nothing new: the failure may have
/// struck before all plugins were told of a pack that is in place, so that its version is no news.
///
/// Asks the server once more when the record says that an update failed and a pack is installed. Where its version is
/// still on offer, records kStatusNeedDownload, from which every update may begin, and returns true. Where the offer is
/// older, the installed pack stays and kStatusUpToDate is recorded. False, and the record as it was, when there is no
/// failure, no pack or no offer, and when the record makes no sense. Throws std::system_error when the record cannot be
/// used, Json::Exception when the server's reply is no object.
[[nodiscard]] ORBAMIRA_EXPORT bool RepeatFailedUpdate(const UpdateLock& lock, const PackManager& manager,
                                                      IPackStatusHelper& status);

}  // namespace orbamira::updater
