#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "tools/orba-archive/layer.h"

namespace orbamira::tools {

/// Packs members of the open folder into the new file `path`, which replaces an older one only when it is whole. The
/// same tree gives the same bytes: members are sorted, belong to root, have the modification time `mtime`, and keep of
/// their mode only whether they are executable. A folder brings all that it holds; "." is the whole folder.
/// Throws std::runtime_error or std::system_error.
void CreateArchive(const std::string& path, Layer layer, int folder, const std::vector<std::string>& members,
                   time_t mtime);

}  // namespace orbamira::tools
