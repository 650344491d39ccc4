#pragma once

#include <string>
#include <vector>

// Which files are plugins.
namespace orbamira::plugins {

/// The paths of the plugins in the order in which to run them, that of their names by bytes; empty when there is no
/// folder of plugins. A plugin is an executable regular file, or a link to one, whose name does not begin with "." or
/// end with "~". Throws PluginFailure when the folder cannot be read or others than root and we could change it.
std::vector<std::string> ListPlugins();

/// Throws PluginFailure when others than root and this process's user could have written the file at `path`, or could
/// put another in its place, or when there is none.
void CheckTrust(const std::string& path);

}  // namespace orbamira::plugins
