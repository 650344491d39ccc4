#pragma once

#include <string>
#include <vector>

// Finds the shared libraries of a pack. Not installed.
namespace orbamira {

/// The shared libraries below the folder: regular files whose name ends in ".so", or has ".so." and a digit in it, and
/// that begin as ELF files do. Sorted; links are not followed, because what they lead to is found itself. Files of
/// debug information (".debug") are none. Throws std::system_error when a folder or file cannot be read.
std::vector<std::string> FindLibraries(const std::string& folder);

/// The same, but whether there is any; stops at the first.
bool HasLibraries(const std::string& folder);

}  // namespace orbamira
