#include "platform/folder_of.h"

#include <filesystem>
#include <system_error>

#include "platform/orba_sdk_wrapper.h"

namespace orbamira {

void MakeFolderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path();
  if (folder.empty()) {
    return;
  }
  if (const int result = wrapper::OrbaSDKWrapper().MakeDirectory(folder); result < 0) {
    throw std::system_error(-result, std::generic_category(), "make folder " + folder);
  }
}

}  // namespace orbamira
