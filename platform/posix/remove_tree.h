#pragma once

#include <string>

namespace orbamira {

/// Removes the entry at `path`, with all that it holds; that there is nothing is no error. Never follows a symbolic
/// link below the folder that the entry lies in.
///
/// A folder leaves its place in one step: it gets the name ".removed.XXXXXX" beside it, a pattern that recovery knows,
/// and is removed there. Whoever looks at the path, at whatever instant, finds all of it or nothing; an end midway, or
/// another process that gives the folder a new name meanwhile, never makes a part of it look like the whole. Only a
/// folder that cannot be renamed, such as a mount point, is removed where it is.
///
/// An error does not keep it from removing the rest: of several, the first is thrown, as std::system_error. Throws
/// std::runtime_error for a path that names no entry of its own.
void RemoveAtOnce(const std::string& path);

/// Removes `name` below the open folder `parent`, piece by piece in its place; the rest as above. `shown` is what the
/// entry is called in errors.
void RemoveTree(int parent, const std::string& name, const std::string& shown);

}  // namespace orbamira
