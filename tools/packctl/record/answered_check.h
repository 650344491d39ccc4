#pragma once

#include <ctime>
#include <optional>

/// When the update server last answered a check.
namespace orbamira::packctl {

/// Notes that the update server has answered a check just now, as the time of the file `checked` beside the download
/// folder. By its age the services see after a boot whether the daily check was missed. Where it cannot be noted, one
/// check more is made.
void NoteAnsweredCheck();

/// When it was noted last, in seconds since the epoch; empty when it never was.
std::optional<std::time_t> LastAnsweredCheck();

}  // namespace orbamira::packctl
