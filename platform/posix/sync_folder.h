#pragma once

#include <string>

// Makes new and removed names survive a power cut. Not installed.
namespace orbamira {

/// Syncs the folder of the file `path`: after a power cut, the names created in it exist and the names removed from it
/// do not. Throws std::system_error, which names `path`.
void SyncFolderOf(const std::string& path);

}  // namespace orbamira
