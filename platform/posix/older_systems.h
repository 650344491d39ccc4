#pragma once

#include <sys/types.h>

#include <string>

#include "platform/posix/unique_fd.h"

// Calls that older kernels (back to Linux 3.10), some file systems or a root without /proc lack, each with a fallback.
// Not installed.
namespace orbamira {

/// Renames an entry of the open folder, but never over another one. False, with errno set, on failure: EEXIST when `to`
/// exists. Where kernel or file system cannot do it in one step (NFS, 9p, FUSE), something that gets the name at the
/// same moment may be replaced; of folders, only an empty one.
[[nodiscard]] bool RenameToFree(int folder, const std::string& from, const std::string& to);

/// Sets the mode of the folder `name` below the open folder `at`. Follows no symbolic link. False, with errno set, on
/// failure.
[[nodiscard]] bool SetFolderMode(int at, const std::string& name, mode_t mode);

/// Opens an empty file without a name for reading and writing. It is in memory where the system supports that, and goes
/// away with its last descriptor. Not valid, with errno set, on failure.
[[nodiscard]] UniqueFd OpenUnnamedFile(const char* name);

/// Closes every descriptor from `first` on. Makes system calls only, so it is safe between fork() and exec().
void CloseFrom(int first);

}  // namespace orbamira
