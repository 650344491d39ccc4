#pragma once

#include <string>

namespace orbamira {

/// Makes the folder that the file `path` lies in, with missing parents, unless it is there. Throws std::system_error
/// naming the folder when that fails. Not installed.
void MakeFolderOf(const std::string& path);

}  // namespace orbamira
