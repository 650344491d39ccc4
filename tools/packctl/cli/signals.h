#pragma once

/// What signals do to packctl, and so with which exit status it ends when it is told to end early.
namespace orbamira::packctl {

/// For every command: neither a reader that goes away nor a limit on the size of files ends it halfway. On a terminal
/// SIGINT and SIGTERM end the line that was begun; then they end the program, as they do by themselves elsewhere. Work
/// that leaves something behind is cancelled instead: see cancel.h.
void SetUpSignals(bool on_terminal);

/// For a command that runs until a signal stops it: from now on SIGINT and SIGTERM end it at once with kExitDone,
/// whatever it waits for; on a terminal they end the line that was begun, too.
void EndOnSignals(bool on_terminal);

}  // namespace orbamira::packctl
