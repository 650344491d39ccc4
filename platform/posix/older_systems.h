#pragma once

#include <sys/types.h>

#include <string>

#include "platform/posix/unique_fd.h"

// What we ask of a system beyond Linux 3.10, beyond every file system, or beyond a root that has /proc, each with a way
// round where it is missing. Not installed.
namespace orbamira {

/// Renames, below the open folder `folder`, to a name that nothing has. False, with errno set, when it cannot: EEXIST
/// when something has it. Where neither kernel nor file system can do it in one step (NFS, 9p, FUSE), what takes the
/// name within the same moment may be replaced, of folders only an empty one.
[[nodiscard]] bool RenameToFree(int folder, const std::string& from, const std::string& to);

/// Sets the mode of the folder `name` below the open folder `at`, never of what a symbolic link leads to. False, with
/// errno set, on failure.
[[nodiscard]] bool SetFolderMode(int at, const std::string& name, mode_t mode);

/// An empty file, for reading and writing, that no folder lists and that goes with its last descriptor: in memory where
/// the system can do that. Not valid, with errno set, on failure.
[[nodiscard]] UniqueFd OpenUnnamedFile(const char* name);

/// Closes every descriptor from `first` on. Makes system calls only, so it may be used between fork() and exec().
void CloseFrom(int first);

}  // namespace orbamira
