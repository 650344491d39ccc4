#pragma once

// Reads the time limit of plugins from the settings.
namespace orbamira::plugins {

/// How many seconds a plugin may run: plugin_time_limit from the machine's settings, or else from the maker's, or
/// else 60. A value that is not a number of seconds up to a day is logged, and 60 is used.
double TimeLimit();

}  // namespace orbamira::plugins
