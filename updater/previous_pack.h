#pragma once

#include <string>

// The steps around the previous pack that recovery and the health check share. Not installed.
namespace orbamira::updater {

class IPluginNotifier;

/// Whether the folder holds a pack. Every pack has an information file, and a pack is put in place whole; so a folder
/// without one is the rest of an interrupted removal. A symbolic link was made by the machine's owner; its target may
/// not be mounted yet.
bool IsPack(const std::string& folder);

/// Whether the previous pack has to go: the disk lacks the room for another update, or the owner wants none kept and
/// the installed pack is accepted.
bool MustGiveUpPrevious();

/// Puts the backup beside an installed pack away as RemoveForUpdater() does, where the update could not do so; false
/// when there is no such backup. Throws std::system_error.
bool KeepBackup();

/// Puts the previous pack in the place of the installed one, which goes; without a previous pack only the latter. Tells
/// the plugins where there is a notifier. A backup that could not be kept before becomes the previous pack first.
///
/// The previous pack first takes the place of the backup: from there on an interruption is one that Recover() knows,
/// and it ends with a whole pack in place. Throws std::system_error when the pack cannot be put back.
void PutPreviousBack(const IPluginNotifier* notifier);

}  // namespace orbamira::updater
