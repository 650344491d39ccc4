#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

/// What keeps a pack safe around the flows of IPackManager. With the update lock held, call Recover() when your program
/// starts and after a flow that failed, ConfirmInstall() after a flow that installed, and RepeatFailedUpdate() when a
/// check found nothing new. Do not call any of them from two threads at once.
namespace orbamira::updater {

class IPackStatusHelper;
class PackManager;
class UpdateLock;

/// What a recovery did, one sentence each.
struct RecoveryReport {
  std::vector<std::string> done = {};    ///< what it repaired or removed
  std::vector<std::string> failed = {};  ///< what it could not
};

/// Cleans up after an interrupted update: the pack and its backup, temporary folders and files, the download, and a
/// recorded status that says "in progress". The status becomes kStatusUpToDate when only the last record was missing,
/// or when a pack is installed and nothing is recorded; otherwise a failed one.
///
/// The steps do not depend on each other: one that fails is reported, and the next one runs. A second call in a row
/// changes nothing. The result survives a power cut. Everything in the report is also in the system log. Throws
/// nothing.
ORBAMIRA_EXPORT RecoveryReport Recover(const UpdateLock& lock);

/// Lists the folders and files that an interrupted update left and that Recover() would remove or restore. While an
/// update is running, they are the ones it works with. Changes nothing and needs no lock. Throws std::system_error when
/// a folder cannot be listed.
[[nodiscard]] ORBAMIRA_EXPORT std::vector<std::string> FindLeftovers();

/// Whether a pack is really in place after IPackManager::Install() or DownloadAndInstall() returned true. The flows
/// take a copy or a removal for done whatever exit status the program gave, so this looks.
///
/// Also finishes removals that met an error. Without a pack it records kStatusDownloadInstallFailed; call Recover()
/// then to bring the old pack back. Throws std::system_error when the status cannot be recorded.
[[nodiscard]] ORBAMIRA_EXPORT bool ConfirmInstall(const UpdateLock& lock, const IPackStatusHelper& status);

/// Finishes removals that were interrupted or met an error. Call it after IPackManager::Download(), for which there is
/// nothing to confirm. Throws nothing.
ORBAMIRA_EXPORT void EndRemovals(const UpdateLock& lock);

/// Whether the last update failed and should run again. Call it when a check found nothing new: a failed update may
/// have put the pack in place without notifying all plugins, and then the check finds no newer version.
///
/// Asks the server again if a pack is installed and the record says that an update failed, or that the installed
/// version needs a download: then a repetition was recorded that never began. If the installed version is still on
/// offer, records kStatusNeedDownload, from which every update may begin, and returns true. If the offer is older,
/// keeps the installed pack, records kStatusUpToDate, removes the download and returns false. It does the same if the
/// record says that a newer version needs a download, and the offer is not newer any more. Otherwise returns false and
/// leaves the record as it is. Throws std::system_error when the record cannot be used, and Json::Exception when the
/// server's reply is no object.
[[nodiscard]] ORBAMIRA_EXPORT bool RepeatFailedUpdate(const UpdateLock& lock, const PackManager& manager,
                                                      IPackStatusHelper& status);

}  // namespace orbamira::updater
