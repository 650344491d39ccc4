#pragma once

#include <string>

#include "platform/export.h"

/// Questions about files.
namespace orbamira::filesystem {

/// Whether a file exists at the path: anything but a directory, symbolic links followed. False when the path cannot be
/// looked at.
ORBAMIRA_EXPORT bool DoseFileExist(const std::string& path);

}  // namespace orbamira::filesystem
