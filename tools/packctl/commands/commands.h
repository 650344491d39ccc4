#pragma once

#include <span>

#include "tools/packctl/cli/command.h"

/// The commands that packctl runs itself: what each does to the machine, what it answers, and their table.
namespace orbamira::packctl {

/// All commands of packctl, those of the account program among them, in the order of the help.
std::span<const Command> PackctlCommands();

/// The queries: they change neither pack nor record and may run beside anything. A missing store or lock file may be
/// made on the way, and a broken store is set aside.
Outcome Status(Context& context);
Outcome Info(Context& context);
Outcome Codecs(Context& context);
Outcome ShowHistory(Context& context);
Outcome ShowMetrics(Context& context);

/// Looks for what is wrong with the machine and says what to do about it. Changes nothing, makes nothing.
Outcome Doctor(Context& context);

/// Shows the state to browsers, and checks and updates for those that bring the token, until a signal ends the program.
Outcome Web(Context& context);

/// Asks the plugins who they are. The library's answer file allows one at a time, so it excludes the changing commands.
Outcome Plugins(Context& context);

/// The changing commands, for a caller that keeps two of them apart. A flow that fails after it began, and a removal
/// that fails, run the recovery before they return; one that the recorded status forbids changes nothing.
Outcome Check(Context& context);
Outcome Download(Context& context);
Outcome Install(Context& context);
Outcome Update(Context& context);
Outcome Remove(Context& context);
Outcome HoldUpdates(Context& context);
Outcome UnholdUpdates(Context& context);
Outcome Rollback(Context& context);
Outcome RunRecovery(Context& context);

}  // namespace orbamira::packctl
