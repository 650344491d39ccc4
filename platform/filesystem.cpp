#include "platform/filesystem.h"

#include <sys/stat.h>

namespace orbamira::filesystem {

bool DoseFileExist(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode);
}

}  // namespace orbamira::filesystem
