#pragma once

#include "tools/packctl/cli/command.h"
#include "tools/packctl/cli/command_line.h"

namespace orbamira::packctl {

/// Runs the command from start to end: under the lock that keeps changing commands apart where it is one that needs
/// this, with an entry in the history where it changed something or failed. What it throws becomes an outcome, and the
/// outcome's problems are all that is to be told on the standard error.
Outcome Run(const Command& command, Context& context);

}  // namespace orbamira::packctl
