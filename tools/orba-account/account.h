#pragma once

#include "tools/packctl/cli/command.h"

namespace orbamira::packctl {

/// The account commands: sign in, sign out, show who is signed in. They change the account file and nothing else, so
/// they need no update lock. They throw an exception for every failure.
Outcome SignIn(Context& context);
Outcome SignOut(Context& context);
Outcome AccountStatus(Context& context);

}  // namespace orbamira::packctl
