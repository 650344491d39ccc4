#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orbamira::tools {

/// The parts of a member's name, between the slashes, but for empty ones and "."; none for the folder itself. Refuses
/// with std::runtime_error what could lead out of the folder (an absolute name, a part "..") and what only harm is made
/// of: more than 4096 bytes or 128 parts. The parts point into `name`.
std::vector<std::string_view> SplitMemberName(std::string_view name);

/// Refuses with std::runtime_error a symbolic link that leads out of the folder it is unpacked into. `depth` counts the
/// folders that the link lies in. ".." may only stand at the target's beginning, where it climbs through the link's own
/// real folders: behind a name, which may be a symbolic link too, nobody can tell from the text where it leads.
void CheckSymlinkTarget(std::string_view target, size_t depth);

}  // namespace orbamira::tools
