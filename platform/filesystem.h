#pragma once

#include <string>

#include "platform/export.h"

/// Questions about files.
namespace orbamira::filesystem {

/// Whether a file exists at the path. Anything but a directory counts as a file; symbolic links are followed. False
/// also when this process may not look at the path. Safe to call from several threads at once.
ORBAMIRA_EXPORT bool DoseFileExist(const std::string& path);

}  // namespace orbamira::filesystem
