#pragma once

#include <cstdint>
#include <optional>

#include "tools/orba-archive/acceptance.h"

namespace orbamira::tools {

/// Checks and unpacks packages, which are plain tar archives of files without folders. A package is read once, from the
/// first byte to the last, so the bytes that are checked are the bytes that are unpacked, even if somebody changes the
/// file meanwhile. The memory that this takes is limited by the longest manifest.
///
/// With demands, the package must be accepted by Judge(); without, every package is accepted.
/// All of them throw std::runtime_error with the reason for a refusal, or std::system_error.

/// Checks the open package file. Writes nothing.
void CheckPackage(int package, const std::optional<Demands>& demands);

/// Checks the open package file and unpacks its information file, INFO, into the open folder, where no file of that
/// name may be. A package that has none is accepted. The process's umask must be 0.
void UnpackInfo(int package, int folder, const std::optional<Demands>& demands);

/// Unpacks the open package file into the open folder: all members, or none. Whatever it contains, nothing outside the
/// folder is created, changed or followed, no existing file in it is touched, and no more is unpacked than `limit` (as
/// UnpackBudget counts) and the file system allow. Files keep the mode bits 0755 and get their names together, after
/// the package was accepted. The process's umask must be 0. Returns what Judge() does.
std::optional<Accepted> UnpackPackage(int package, int folder, uint64_t limit, const std::optional<Demands>& demands);

}  // namespace orbamira::tools
