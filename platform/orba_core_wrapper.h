#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

/// What the updater needs of a system: services, each behind an interface.
namespace orbamira::wrapper {

/// Core services: running programs and reading settings files, behind an interface so that a test or another platform
/// can stand in for them. The order of the operations is a binary contract.
class ORBAMIRA_EXPORT IOrbaCoreWrapper {
 public:
  virtual ~IOrbaCoreWrapper() = default;

  /// Runs the program named by the absolute path `args[0]` with the other elements as its arguments, exactly as given
  /// (no shell, no search path), and blocks until it ends.
  ///
  /// The program's standard input is /dev/null; its standard output and error are the caller's, or /dev/null where the
  /// caller has none. It inherits no other descriptor, and starts with default signal dispositions and an empty mask.
  ///
  /// Returns the exit status (0 to 255), -1 when the program could not be started (also for an empty `args`), and -N
  /// when signal N ended it. Never throws for a program's failure. Independent of the caller's handling of SIGCHLD.
  /// May be called from several threads at once.
  virtual int RunCommand(const std::vector<std::string>& args) = 0;

  /// The value of `key` in the settings file `file`; empty when the file or the key is missing.
  ///
  /// The file holds lines of key=value. The first line whose key matches counts; blanks around key and value, one pair
  /// of double quotes around the value and a carriage return before the line's end are dropped; lines that begin with
  /// '#' are ignored. At most the first mebibyte is looked at. May be called from several threads at once.
  virtual std::string GetKeyValue(const std::string& file, const std::string& key) = 0;
};

/// The core services of a Linux system. Holds no state.
class ORBAMIRA_EXPORT OrbaCoreWrapper : public IOrbaCoreWrapper {
 public:
  int RunCommand(const std::vector<std::string>& args) override;
  std::string GetKeyValue(const std::string& file, const std::string& key) override;
};

}  // namespace orbamira::wrapper
