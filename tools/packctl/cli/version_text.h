#pragma once

#include <string>

namespace orbamira::packctl {

/// What "packctl --version" prints, without the last line end: the version, how this program was built, and the
/// libraries it runs with.
std::string VersionText();

}  // namespace orbamira::packctl
