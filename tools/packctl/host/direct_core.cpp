#include "tools/packctl/host/direct_core.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <system_error>

#include "platform/constants.h"
#include "platform/printable.h"
#include "platform/removal.h"

namespace orbamira::packctl {
namespace {

bool IsRemoval(const std::vector<std::string>& args) {
  return args.size() == 3 && args[0] == path::kRmPath && args[1] == "-rf";
}

int Remove(const std::string& path) {
  try {
    RemoveForUpdater(path);
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "orba-remove: %s\n", Printable(error.what()).c_str()));
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

/// A folder that cannot be read counts as one with plugins: what is wrong with it is for orba-plugins to tell.
bool MayHavePlugins() {
  std::error_code error;
  const std::filesystem::directory_iterator first(path::kPluginFolder, error);
  return error ? error != std::errc::no_such_file_or_directory : first != std::filesystem::directory_iterator();
}

}  // namespace

int DirectCore::RunCommand(const std::vector<std::string>& args) {
  if (IsRemoval(args)) {
    return Remove(args[2]);
  }
  if (!args.empty() && args[0] == path::kNotifyPluginPyPath && !MayHavePlugins()) {
    return EXIT_SUCCESS;
  }
  if (!args.empty() && args[0] == path::kOrbaArchivePath) {
    return RunArchive(args);
  }
  return OrbaCoreWrapper::RunCommand(args);
}

void DirectCore::ExpectPack(const std::string& name, const std::string& version) {
  expected_ = name.empty() || version.empty() ? "" : name + "=" + version;
}

int DirectCore::RunArchive(std::vector<std::string> args) {
  if (trusts_packages_) {
    args.emplace_back("--trust");
  }
  if (!expected_.empty()) {
    args.insert(args.end(), {"--offer", expected_});
  }
  return OrbaCoreWrapper::RunCommand(args);
}

}  // namespace orbamira::packctl
