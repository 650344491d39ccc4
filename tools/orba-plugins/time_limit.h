#pragma once

// Reads the time limits of plugins and other programs from the settings.
namespace orbamira::plugins {

/// How many seconds a program may run: `key` from the machine's settings, or else from the maker's, or else 60. A value
/// that is not a number of seconds up to a day is logged, and 60 is used.
double TimeLimit(const char* key);

}  // namespace orbamira::plugins
