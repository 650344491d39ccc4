#pragma once

#include "tools/orba-archive/layer.h"

namespace orbamira::tools {

/// Makes room for the open archive in the open folder that it is about to be unpacked into, when that is one of the
/// updater's own two: the temporary folder of a pack, path::kTempPackFolderPath, or the download folder,
/// kDownloadFolder. In any other folder nothing is touched.
///
/// All that is in there goes, but for the archive itself: what an install that failed has left would stand in the way
/// of the next one, and what somebody else has put there would become a part of the pack. A payload that lies in the
/// folder came out of its package just now, and so did what lies beside it: then everything stays.
///
/// Throws std::system_error when something cannot be removed.
void ClearOwnFolder(int folder, int archive, Layer layer);

}  // namespace orbamira::tools
