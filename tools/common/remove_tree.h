#pragma once

#include <string>

namespace orbamira::tools {

/// Removes `name` below the open folder `parent`, with all that it holds; that there is nothing is no error. Never
/// follows a symbolic link. An error does not keep it from removing the rest: of several, the first is thrown, as
/// std::system_error. `shown` is what the entry is called in it.
void RemoveTree(int parent, const std::string& name, const std::string& shown);

}  // namespace orbamira::tools
