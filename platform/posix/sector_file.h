#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>

#include "platform/posix/atomic_file.h"

// Files of one sector, which change in place: one write and one flush, where a new file takes several of each. Not
// installed.
namespace orbamira {

/// What a disk writes whole or not at all, also when the power goes meanwhile.
inline constexpr std::size_t kSectorSize = 512;

/// Whether it is a regular file of one sector.
bool IsSectorFile(const struct stat& status);

/// Whether the open file is a sector that holds this text. Does not wait for whoever overwrites it.
bool HoldsSector(int fd, const std::string& text);

/// The file from its beginning, but not more than `limit` bytes; empty, with errno set, on failure. Waits a tenth of a
/// second at most for whoever overwrites the file, so that it gives what was there before or what is there after.
[[nodiscard]] std::optional<std::string> ReadUnmixed(int fd, std::size_t limit);

/// Overwrites the open file of one sector, from `before` to `after`, both of that size. True when every process sees
/// `after`, and with kDurable a power cut cannot take it back. False when something was in the way: a system that
/// cannot lock the file, a reader who does not let go of it within a tenth of a second, a failed write. The file then
/// holds `before`, though a power cut may still bring `after` to light.
///
/// Two who overwrite at once do not mix their texts; which of them wins is for the caller's lock to decide.
[[nodiscard]] bool OverwriteSector(int fd, const std::string& before, const std::string& after, Durability durability);

}  // namespace orbamira
