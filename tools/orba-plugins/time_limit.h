#pragma once

// The setting that the program of the plugins reads.
namespace orbamira::plugins {

/// How many seconds a plugin may take: plugin_time_limit of the machine's settings, else of the maker's, else 60. A
/// value that is no number of seconds up to a day is logged, and counts as none at all.
double TimeLimit();

}  // namespace orbamira::plugins
