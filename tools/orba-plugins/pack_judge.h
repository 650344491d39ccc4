#pragma once

#include <string>
#include <vector>

#include "tools/orba-plugins/signals.h"

// Judges the health of a pack.
namespace orbamira::plugins {

enum class Judgement {
  kHealthy,
  kUnhealthy,  ///< a library cannot be loaded, or a program says no
  kUnknown,    ///< something could not be checked, and nothing that was checked is wrong
};

/// Loads each shared library of the pack in the folder, an absolute path, by orba-load, which finds those libraries by
/// their names too. Then runs the programs, in this order, with the folder as their argument. Each has
/// health_time_limit seconds; what it starts ends with it. Reports whatever is wrong, and goes on.
///
/// A library that crashes or hangs cannot be loaded. A program that is refused, or killed from outside, gives no
/// answer. Throws Stopped as RunPlugin() does, and std::system_error when the folder cannot be read.
Judgement JudgePack(const std::string& folder, const std::vector<std::string>& programs, Signals& signals);

}  // namespace orbamira::plugins
