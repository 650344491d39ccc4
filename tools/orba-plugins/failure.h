#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

// How the program of the plugins says what went wrong.
namespace orbamira::plugins {

/// What went wrong with the plugin, or the folder of plugins, that the text names first.
class PluginFailure : public std::runtime_error {
 public:
  PluginFailure(const std::string& path, const std::string& reason) : std::runtime_error(path + ": " + reason) {}
};

/// A signal asked this program to end.
struct Stopped {
  int signal_number;
};

/// Writes the text to the standard error. False when not all of it could be written, which is no failure of ours; a
/// reader that takes nothing for a second counts as gone.
bool PrintError(std::string_view text);

/// Tells the standard error and the system log of a failure, in one line.
void Report(const std::string& failure);

}  // namespace orbamira::plugins
