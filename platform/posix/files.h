#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/errors.h"
#include "platform/posix/unique_fd.h"
#include "platform/printable.h"

/// What the small programs share on top of the system calls: errors that name what they are about, and a walk that
/// never follows a symbolic link.
namespace orbamira {

/// "folder/inner".
std::string Below(const std::string& folder, const std::string& inner);

/// The folder that a path's last part lies in, and that part: "." and "a" for "a", "/x/" and "a" for "/x/a/".
struct PathParts {
  std::string parent;
  std::string name;
};

/// Throws std::runtime_error for a path whose last part names no entry of its own: "", "/", ".", "..".
PathParts SplitPath(const std::string& path);

/// Opens the directory `name` below `at` for reading; a symbolic link in its place is an error. `shown` is its name in
/// the error. Throws std::system_error.
UniqueFd OpenDirectory(int at, const std::string& name, const std::string& shown);

/// The names in the open directory but for "." and "..", sorted by bytes. Throws std::system_error.
std::vector<std::string> ListDirectory(int directory, const std::string& shown);

/// stat() of the open file, and of the name below `at` without following a symbolic link. Throw std::system_error.
struct stat Stat(int fd, const std::string& shown);
struct stat StatName(int at, const std::string& name, const std::string& shown);

/// Where the symbolic link leads. Throws std::system_error.
std::string ReadLink(int at, const std::string& name, const std::string& shown);

/// Reads up to `size` bytes, less only at the end of the file. Throws std::system_error.
size_t ReadFully(int fd, void* buffer, size_t size, const std::string& shown);

/// Writes all of it. Throws std::system_error.
void WriteFully(int fd, const void* data, size_t size, const std::string& shown);

}  // namespace orbamira
