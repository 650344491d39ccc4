#pragma once

#include "tools/packctl/cli/command.h"

/// "packctl status --watch".
namespace orbamira::packctl {

/// Shows the recorded status and then each change of it, as soon as it is recorded, until SIGINT or SIGTERM ends the
/// program with 0. Sleeps in between. Returns when nobody reads the output any more, and as a failure when the output
/// cannot be written.
///
/// In JSON each change is an object on a line of its own. In text a change of the status is a line; the progress of
/// work under way is redrawn on a terminal, and otherwise a line for each tenth of the download and each install step.
Outcome WatchStatus(Context& context);

}  // namespace orbamira::packctl
