#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/posix/unique_fd.h"

namespace orbamira {

/// When a replaced file counts as replaced.
enum class Durability {
  kVisible,  ///< every process sees the new content; a power cut may bring back the old one
  kDurable,  ///< the new content also outlives a power cut
};

/// Replaces the file `path` whole, or makes it, with the given content and permission bits (whatever the umask). A
/// reader sees the old content or the new, never a part, and so does whoever looks after a power cut. A symbolic link
/// at `path` is replaced, not followed.
///
/// Throws std::system_error naming the file when that fails. The file then is as it was and nothing is left beside it;
/// only when the very last step of kDurable failed, syncing the folder, is the new content already in place.
///
/// Two writers at once do not mix their contents; which of them wins is for the caller's lock to decide.
///
/// Returns the new file, still open.
UniqueFd ReplaceFile(const std::string& path, std::string_view content, mode_t mode, Durability durability);

/// As ReplaceFile with kVisible, but never over a file that exists: returns no valid descriptor when there is one.
[[nodiscard]] UniqueFd MakeFile(const std::string& path, std::string_view content, mode_t mode);

}  // namespace orbamira
