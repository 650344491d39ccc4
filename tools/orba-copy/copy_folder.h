#pragma once

#include <string>

namespace orbamira::tools {

/// Copies the folder `source` to the new folder `target`, whole and on disk, or not at all: a failure removes what was
/// built. `target` must not exist. Throws std::runtime_error or std::system_error.
void CopyFolder(const std::string& source, const std::string& target);

}  // namespace orbamira::tools
