#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace orbamira::tools {

/// What is done with a package, a plain tar of files at its top. It is read once, from first byte to last: what was
/// judged is what is unpacked, whoever owns the file and whatever becomes of it meanwhile. What is kept of it in memory
/// is bounded by what a manifest of the greatest size can list.
///
/// With a keyring, the package must be signed as CheckSignature() demands; without, every package will do. Both throw
/// std::runtime_error with the reason for which it is refused, or std::system_error.

/// Judges the open package file. Nothing is written.
void CheckPackage(int package, const std::optional<std::string>& keyring);

/// Unpacks the open package file into the open folder: all members, or none. Whatever it holds, nothing outside the
/// folder is made, changed or reached, no existing file in it is touched, and no more is made than `limit` (as
/// UnpackBudget counts) and the file system allow. Files keep the mode bits 0755 and get their names together, after
/// the package has proved to be accepted. The process's umask must be 0.
void UnpackPackage(int package, int folder, uint64_t limit, const std::optional<std::string>& keyring);

}  // namespace orbamira::tools
