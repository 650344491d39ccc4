#pragma once

#include <string>

// Removes what the library asks for. Not installed.
namespace orbamira {

/// Removes the file or folder at `path`, as RemoveAtOnce() does, but
/// - the backup of a pack takes the place of the previous pack, which goes, but not if the same pack was installed once
///   more (its INFO says the same): the previous one is still the way back;
/// - with the installed pack the previous one goes, first of the two: what is left after an interruption is the pack. A
///   power cut after the call brings neither back.
///
/// So an update keeps what was installed before it, whichever host runs it, and pays one rename for that. What has no
/// INFO is not a pack and is only removed. A backup that cannot be renamed stays, for ConfirmInstall() and Recover() to
/// look after: the new pack may turn out to be bad. Throws as RemoveAtOnce() does.
void RemoveForUpdater(const std::string& path);

}  // namespace orbamira
