#include "tools/orba-plugins/plugin_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/posix/files.h"
#include "platform/posix/trust.h"
#include "tools/orba-plugins/failure.h"

namespace orbamira::plugins {
namespace {

bool IsPlugin(const std::string& name, const std::string& path) {
  struct stat status {};
  return !name.starts_with('.') && !name.ends_with('~') && stat(path.c_str(), &status) == 0 &&
         S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::vector<std::string> ListPrograms(const std::string& folder) {
  std::vector<std::string> names;
  try {
    CheckTrust(folder);
    const UniqueFd open_folder(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!open_folder.valid()) {
      ThrowErrno(folder);
    }
    names = ListDirectory(open_folder.get(), folder);
  } catch (const std::system_error& error) {
    if (error.code().value() == ENOENT) {
      return {};
    }
    throw NoAnswer(folder, "cannot be read: " + error.code().message());
  }
  std::vector<std::string> paths;
  for (const std::string& name : names) {
    if (std::string path = Below(folder, name); IsPlugin(name, path)) {
      paths.push_back(std::move(path));
    }
  }
  return paths;
}

void CheckTrust(const std::string& path) {
  if (const std::string reason = WhyDistrusted(path); !reason.empty()) {
    throw NoAnswer(path, "refused: " + reason);
  }
}

}  // namespace orbamira::plugins
