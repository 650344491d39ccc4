#include "platform/orba_sdk_wrapper.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>

#include "platform/posix/older_systems.h"

namespace orbamira::wrapper {
namespace {

constexpr mode_t kMode = 0755;

int MakeOne(const char* path) {
  if (mkdir(path, kMode) == 0) {
    // The umask removed bits, and it cannot be changed for one thread alone.
    return SetFolderMode(AT_FDCWD, path, kMode) ? 0 : -errno;
  }
  // For something that exists, mkdir does not always say EEXIST (a read-only file system, an automounter). So look
  // whether there is a directory.
  const int error = errno;
  struct stat status {};
  if (stat(path, &status) != 0) {
    return -error;
  }
  return S_ISDIR(status.st_mode) ? 0 : -ENOTDIR;
}

}  // namespace

int OrbaSDKWrapper::MakeDirectory(const std::string& path) {
  if (path.empty()) {
    return -ENOENT;
  }
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const int result = MakeOne(path.substr(0, end).c_str());
    if (result < 0 || end == std::string::npos) {
      return result;
    }
  }
}

}  // namespace orbamira::wrapper
