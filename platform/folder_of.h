#pragma once

#include <string>

// Not installed.
namespace orbamira {

/// Creates the folder of the file `path` and its missing parents, unless it exists. Throws std::system_error, which
/// names the folder, when that fails.
void MakeFolderOf(const std::string& path);

}  // namespace orbamira
