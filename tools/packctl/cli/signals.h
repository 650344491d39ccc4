#pragma once

namespace orbamira::packctl {

/// From now on SIGINT and SIGTERM end the program at once with kExitDone, whatever it waits for; on a terminal they end
/// the line that was begun, too. For commands that run until they are told to end.
void EndOnSignals(bool on_terminal);

}  // namespace orbamira::packctl
