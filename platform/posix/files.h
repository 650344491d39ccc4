#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/errors.h"
#include "platform/posix/unique_fd.h"
#include "platform/printable.h"

// System calls on files and folders, with errors that name the file, and without following symbolic links. Not
// installed. `shown` is the name of the file in the error.
namespace orbamira {

/// "folder/inner".
std::string Below(const std::string& folder, const std::string& inner);

/// The folder and the name in a path: "." and "a" for "a", "/x/" and "a" for "/x/a/".
struct PathParts {
  std::string parent;
  std::string name;
};

/// Splits a path. Throws std::runtime_error when its last part is no name: "", "/", ".", "..".
PathParts SplitPath(const std::string& path);

/// Opens the directory `name` below `at` for reading; a symbolic link is an error. Throws std::system_error.
UniqueFd OpenDirectory(int at, const std::string& name, const std::string& shown);

/// The names in the open directory without "." and "..", sorted by bytes. Throws std::system_error.
std::vector<std::string> ListDirectory(int directory, const std::string& shown);

/// The status of an open file, or of the name below `at`, where a symbolic link is not followed. Throw
/// std::system_error.
struct stat Stat(int fd, const std::string& shown);
struct stat StatName(int at, const std::string& name, const std::string& shown);

/// Where the symbolic link leads. Throws std::system_error.
std::string ReadLink(int at, const std::string& name, const std::string& shown);

/// Reads up to `size` bytes, less only at the end of the file. Throws std::system_error.
size_t ReadFully(int fd, void* buffer, size_t size, const std::string& shown);

/// Writes all of it. Throws std::system_error.
void WriteFully(int fd, const void* data, size_t size, const std::string& shown);

}  // namespace orbamira
