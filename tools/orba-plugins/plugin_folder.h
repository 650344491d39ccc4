#pragma once

#include <string>
#include <vector>

// Finds the plugins, and checks who may have written them.
namespace orbamira::plugins {

/// The paths of the plugins, or of other programs in a folder, in the order in which they run: by the bytes of their
/// names. Empty when there is no such folder. A plugin is an executable regular file, or a link to one, whose name does
/// not begin with "." or end with "~". Throws NoAnswer when the folder cannot be read, or when somebody other than root
/// and this user could change it.
std::vector<std::string> ListPrograms(const std::string& folder);

/// Throws NoAnswer when somebody other than root and this process's user could have written what is at `path` or could
/// replace it, and std::system_error when it is missing.
void CheckTrust(const std::string& path);

}  // namespace orbamira::plugins
