#pragma once

#include <string>

// Removes files and folders. Not installed.
namespace orbamira {

/// Removes the file or folder at `path` with everything in it. A missing one is no error. Follows no symbolic link
/// below the folder of `path`.
///
/// A folder leaves its place in one step: it is renamed to ".removed.XXXXXX" beside it, a name that recovery knows, and
/// removed there. So the path always shows the whole folder or nothing, even if the process is killed or another one
/// renames the folder meanwhile. Only a folder that cannot be renamed, such as a mount point, is removed in place.
///
/// After an error it goes on and removes the rest; then it throws the first error as std::system_error. Throws
/// std::runtime_error for a path whose last part is no name.
void RemoveAtOnce(const std::string& path);

/// Removes `name` below the open folder `parent` in place, file by file; otherwise as above. `shown` is its name in
/// errors.
void RemoveTree(int parent, const std::string& name, const std::string& shown);

}  // namespace orbamira
