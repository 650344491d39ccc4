#pragma once

#include <functional>

#include "tools/orba-plugins/signals.h"

// What ends the plugins when the process that runs them is killed.
namespace orbamira::plugins {

/// Calls `work` in a process of its own and returns what it returned, once that process and all that it started have
/// ended; 1 when it was killed.
///
/// Two processes look after the plugins, each of which notices when the other is killed, and then ends what is left:
/// the one that works is in a process group of its own, so that no signal to a group meets both. A signal to this
/// process that is to end it is passed on. Throws std::system_error when no process can be made.
int RunGuarded(Signals& signals, const std::function<int()>& work);

}  // namespace orbamira::plugins
