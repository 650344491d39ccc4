#pragma once

#include <string>
#include <vector>

// Finds the plugins, and checks who may have written them.
namespace orbamira::plugins {

/// The paths of the plugins in the order in which they run: by the bytes of their names. Empty when there is no folder
/// of plugins. A plugin is an executable regular file, or a link to one, whose name does not begin with "." or end with
/// "~". Throws PluginFailure when the folder cannot be read, or when somebody other than root and this user could
/// change it.
std::vector<std::string> ListPlugins();

/// Throws PluginFailure when somebody other than root and this process's user could have written the file at `path` or
/// could replace it, and when it is missing.
void CheckTrust(const std::string& path);

}  // namespace orbamira::plugins
