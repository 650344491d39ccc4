#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orbamira::tools {

/// Splits a member's name at its slashes, without empty parts and "."; no parts for the folder itself. Throws
/// std::runtime_error for a name that could lead out of the folder (an absolute name, a part "..") and for one that is
/// absurdly long: more than 4096 bytes or 128 parts. The parts point into `name`.
std::vector<std::string_view> SplitMemberName(std::string_view name);

/// Throws std::runtime_error for a symbolic link that leads out of the folder into which it is unpacked. `depth` is the
/// number of folders around the link. ".." is allowed only at the beginning of the target, where it goes up through
/// those folders. After a name, which may be a symbolic link too, the text does not tell where it leads.
void CheckSymlinkTarget(std::string_view target, size_t depth);

}  // namespace orbamira::tools
