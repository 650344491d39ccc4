#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/orba-plugins/signals.h"

// One run of one plugin.
namespace orbamira::plugins {

/// Takes a piece of a plugin's standard output; false when that makes too much of it, which ends the plugin.
using TakeOutput = std::function<bool(std::string_view)>;

/// Runs the plugin with these arguments in a process group of its own, with an empty standard input, and waits for its
/// end, `seconds` at most. All that it started ends with it: what is left then is asked to end by SIGTERM, and gets
/// SIGKILL two seconds later. Should this process be killed, the plugin gets SIGKILL at once.
///
/// What it prints goes to the standard error (OutputLines); with `take_output` its standard output goes there instead.
///
/// Throws PluginFailure when others than root could have written the plugin, when it cannot be started, takes too long,
/// prints too much or does not exit with 0, and Stopped, once all has ended, when a signal asked this process to end.
/// The caller has called AdoptOrphans(), and has no other child.
void RunPlugin(const std::string& plugin, const std::vector<std::string>& arguments, double seconds, Signals& signals,
               const TakeOutput& take_output = nullptr);

}  // namespace orbamira::plugins
