#include "tools/orba-archive/own_folder.h"

#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/constants.h"
#include "platform/posix/files.h"
#include "platform/posix/remove_tree.h"

namespace orbamira::tools {
namespace {

bool IsSame(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace

// A symbolic link to the folder does not count.
bool IsOwnFolder(int folder) {
  const struct stat given = Stat(folder, "cannot look at the folder");
  return std::ranges::any_of(std::vector{path::kTempPackFolderPath, kDownloadFolder}, [&](const char* path) {
    struct stat own = {};
    return lstat(path, &own) == 0 && IsSame(own, given);
  });
}

void ClearOwnFolder(int folder, int archive, Layer layer) {
  const struct stat kept = Stat(archive, "cannot look at the archive");
  std::vector<std::string> names = ListDirectory(folder, "cannot list the folder");
  const auto is_archive = [&](const std::string& name) { return IsSame(StatName(folder, name, name), kept); };
  if (std::erase_if(names, is_archive) != 0 && layer == Layer::kPayload) {
    return;
  }
  for (const std::string& name : names) {
    RemoveTree(folder, name, name);
  }
}

}  // namespace orbamira::tools
