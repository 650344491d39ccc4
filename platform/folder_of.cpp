#include "platform/folder_of.h"

#include <filesystem>

#include "platform/orba_sdk_wrapper.h"
#include "platform/posix/errors.h"

namespace orbamira {

void MakeFolderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path();
  if (folder.empty()) {
    return;
  }
  if (const int result = wrapper::OrbaSDKWrapper().MakeDirectory(folder); result < 0) {
    ThrowErrno("make folder " + folder, -result);
  }
}

}  // namespace orbamira
