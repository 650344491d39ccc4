#pragma once

#include <filesystem>
#include <vector>

#include "platform/constants.h"

namespace orbamira::test {

/// The folders that the updater writes to, settings apart, wherever this build has them.
inline std::vector<std::filesystem::path> WrittenFolders() {
  using std::filesystem::path;
  return {path(orbamira::path::kPackStatusFile).parent_path(), kTargetFolder, path(kDownloadFolder).parent_path(),
          path(orbamira::path::kPackStatusLock).parent_path().parent_path()};
}

inline void RemoveWrittenFolders() {
  for (const std::filesystem::path& folder : WrittenFolders()) {
    std::filesystem::remove_all(folder);
  }
}

}  // namespace orbamira::test
