#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

/// The services that the updater needs from the system, each behind an interface.
namespace orbamira::wrapper {

/// Core services: running programs and reading settings files. A test or another platform can stand in for them. The
/// order of the operations is a binary contract.
class ORBAMIRA_EXPORT IOrbaCoreWrapper {
 public:
  virtual ~IOrbaCoreWrapper() = default;

  /// Runs the program named by the absolute path `args[0]` with the other elements as its arguments, exactly as given
  /// (no shell, no search path), and blocks until it ends.
  ///
  /// The program's standard input is /dev/null. Its standard output and error are the caller's, or /dev/null where the
  /// caller has none. It inherits no other descriptor and starts with default signal handlers and no blocked signals.
  /// When the caller dies, the program is ended too.
  ///
  /// Returns the exit status (0 to 255), -1 when the program could not be started (also for empty `args`), and -N when
  /// signal N ended it. A program that fails never throws. It does not matter how the caller handles SIGCHLD. Safe to
  /// call from several threads at once.
  virtual int RunCommand(const std::vector<std::string>& args) = 0;

  /// The value of `key` in the settings file `file`; empty when the file or the key is missing, and when users other
  /// than root and this process's own may write the file.
  ///
  /// The file holds lines of the form key=value; the first line with the key counts. Blanks around key and value, one
  /// pair of double quotes around the value and a carriage return at the end of the line are dropped. Lines that begin
  /// with '#' are comments. Only the first mebibyte is read. Safe to call from several threads at once.
  virtual std::string GetKeyValue(const std::string& file, const std::string& key) = 0;
};

/// The core services of a Linux system. An object holds no state, so it may be shared and copied.
class ORBAMIRA_EXPORT OrbaCoreWrapper : public IOrbaCoreWrapper {
 public:
  int RunCommand(const std::vector<std::string>& args) override;
  std::string GetKeyValue(const std::string& file, const std::string& key) override;
};

}  // namespace orbamira::wrapper
