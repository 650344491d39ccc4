#pragma once

#include <functional>

#include "tools/orba-plugins/signals.h"

// Ends the plugins even when the process that runs them is killed.
namespace orbamira::plugins {

/// Calls `work` in a child process. Returns what `work` returned, or 1 when the child was killed, once the child and
/// everything that it started have ended.
///
/// Each of the two processes notices when the other is killed, and then ends the plugins that are left. The child is in
/// a process group of its own, so that no signal to a group hits both. A signal that asks this process to end is passed
/// on. Throws std::system_error when no process can be started.
int RunGuarded(Signals& signals, const std::function<int()>& work);

}  // namespace orbamira::plugins
