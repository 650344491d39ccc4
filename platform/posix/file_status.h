#pragma once

#include <filesystem>
#include <system_error>

// std::filesystem's status() and symlink_status(), which fail for a file that is dated after 2038 where the C++
// library's times have 32 bits. Not installed.
namespace orbamira {

/// What is at the path, behind symbolic links, too; file_type::not_found when there is nothing. Throws
/// std::system_error when that cannot be seen.
std::filesystem::file_status StatusOf(const std::filesystem::path& path);

/// As above, but file_type::none when that cannot be seen; then `error` says why, and else it is cleared.
std::filesystem::file_status StatusOf(const std::filesystem::path& path, std::error_code& error);

/// What is at the path itself, which may be a symbolic link.
std::filesystem::file_status LinkStatusOf(const std::filesystem::path& path);
std::filesystem::file_status LinkStatusOf(const std::filesystem::path& path, std::error_code& error);

}  // namespace orbamira
