#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "tools/orba-archive/layer.h"

namespace orbamira::tools {

/// Packs members of the open folder into the file `path`. An older file is replaced only when the new one is whole. A
/// folder is packed with everything in it; "." is the whole open folder.
///
/// The same tree gives the same bytes: members are sorted, belong to root, have the modification time `mtime` and only
/// two modes, executable or not. Throws std::runtime_error or std::system_error.
void CreateArchive(const std::string& path, Layer layer, int folder, const std::vector<std::string>& members,
                   time_t mtime);

}  // namespace orbamira::tools
