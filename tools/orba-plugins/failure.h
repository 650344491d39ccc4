#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

// Reports what goes wrong when plugins run.
namespace orbamira::plugins {

/// A failure of a plugin or of the folder of plugins. what() begins with its path.
class PluginFailure : public std::runtime_error {
 public:
  PluginFailure(const std::string& path, const std::string& reason)
      : std::runtime_error(path + ": " + reason), reason_(reason) {}

  /// What went wrong, without the path.
  [[nodiscard]] const std::string& reason() const { return reason_; }

 private:
  std::string reason_;
};

/// One that gave no answer: it was refused, could not be started or was killed from outside.
class NoAnswer : public PluginFailure {
 public:
  using PluginFailure::PluginFailure;
};

/// A signal asked this program to end.
struct Stopped {
  int signal_number;
};

/// Writes the text to the standard error. Best effort: false when not all of it could be written. A reader that takes
/// nothing for a second counts as gone.
bool PrintError(std::string_view text);

/// Writes a failure to the standard error and the system log, in one line.
void Report(const std::string& failure);

}  // namespace orbamira::plugins
