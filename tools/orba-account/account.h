#pragma once

#include "tools/packctl/cli/command.h"

namespace orbamira::packctl {

/// The account commands. Signing in and out change the account file and nothing else; they may run beside anything.
/// They throw what they fail with.
Outcome SignIn(Context& context);
Outcome SignOut(Context& context);
Outcome AccountStatus(Context& context);

}  // namespace orbamira::packctl
