#pragma once

#include "tools/orba-archive/layer.h"

namespace orbamira::tools {

/// Whether the open folder is one of the two that the updater unpacks into: the temporary folder of a pack,
/// path::kTempPackFolderPath, or the download folder, kDownloadFolder. Throws std::system_error.
bool IsOwnFolder(int folder);

/// Empties one of these folders before the open archive is unpacked into it.
///
/// Removes everything but the archive itself: what a failed install left would be in the way of the next one, and what
/// somebody else put there would become a part of the pack. But when the folder contains the payload that is to be
/// unpacked, the package was unpacked there just now, and everything stays.
///
/// Throws std::system_error when something cannot be removed.
void ClearOwnFolder(int folder, int archive, Layer layer);

}  // namespace orbamira::tools
