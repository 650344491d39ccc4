#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/orba-plugins/signals.h"

// Runs one plugin once.
namespace orbamira::plugins {

/// Takes a piece of a plugin's standard output. Returning false, for too much output, ends the plugin.
using TakeOutput = std::function<bool(std::string_view)>;

/// Runs the plugin in a process group of its own, with an empty standard input, and waits at most `seconds` for it to
/// end. Everything that it started ends with it: what is left gets SIGTERM, and SIGKILL two seconds later. If this
/// process is killed, the plugin gets SIGKILL at once.
///
/// What the plugin prints goes to the standard error (OutputLines). With `take_output`, its standard output goes there
/// instead.
///
/// Throws PluginFailure when the plugin cannot be trusted (CheckTrust) or started, takes too long, prints too much or
/// does not exit with 0. Throws Stopped, once everything has ended, when a signal asked this process to end. Call
/// AdoptOrphans() first, and have no other child.
void RunPlugin(const std::string& plugin, const std::vector<std::string>& arguments, double seconds, Signals& signals,
               const TakeOutput& take_output = nullptr);

}  // namespace orbamira::plugins
