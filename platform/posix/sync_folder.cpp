#include "platform/posix/sync_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "platform/posix/errors.h"
#include "platform/posix/unique_fd.h"

namespace orbamira {

void SyncFolderOf(const std::string& path) {
  const std::string folder = (std::filesystem::path(path).parent_path() / ".").string();
  const UniqueFd fd = OpenFile(folder, O_RDONLY | O_DIRECTORY);
  if (!fd.valid() || fsync(fd.get()) != 0) {
    ThrowErrno("cannot sync the folder of " + path);
  }
}

}  // namespace orbamira
