#pragma once

#include <string>

// Not installed.
namespace orbamira {

/// Puts on disk what the folder of `path` lists: after a power cut a name that was made there is there, and one that
/// was removed is gone. Throws std::system_error naming `path`.
void SyncFolderOf(const std::string& path);

}  // namespace orbamira
