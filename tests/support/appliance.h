#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/constants.h"
#include "tests/support/http_server.h"

namespace orbamira::test {

/// How a program ended and what it said.
struct ProgramResult {
  int status = -1;     ///< the exit status, or -N when signal N ended it
  std::string output;  ///< standard output
  std::string errors;  ///< standard error
};

/// A program that is running; ended with its object.
class RunningProgram {
 public:
  /// Starts the program with its output going to files, or to the terminal `terminal` when that is 0 or more.
  explicit RunningProgram(const std::vector<std::string>& command, int terminal = -1);
  ~RunningProgram();
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  void Signal(int signal_number) const;

  /// What it has written to the standard output so far.
  [[nodiscard]] std::string Output() const;

  /// As above, to the standard error.
  [[nodiscard]] std::string Errors() const;

  /// Waits for its end.
  ProgramResult Wait();

 private:
  std::string output_;  // the files' names
  std::string errors_;
  pid_t pid_ = -1;
};

/// A whole appliance in the test's own root: settings, the updater's programs as they were built, and a web server that
/// publishes packs. A test changes it the way of a user, through packctl, a program of its own, or the way of a host,
/// through the library in the test's own process.
class Appliance {
 public:
  Appliance();

  /// Publishes a pack whose payload is the file "codec" with the text `payload`.
  void Publish(const std::string& version, const std::string& payload, const std::string& name = kHevcPack);

  /// What the server does in place of answering honestly; asked with each request.
  using Fault = std::function<void(const HttpRequest&, HttpResponse&)>;
  void SetFault(Fault fault) {
    const std::lock_guard lock(fault_mutex_);
    fault_ = std::move(fault);
  }
  [[nodiscard]] HttpServer& server() { return server_; }

  /// The command line that runs packctl, and its run from start to end.
  [[nodiscard]] static std::vector<std::string> PackctlCommand(std::vector<std::string> arguments);
  [[nodiscard]] static ProgramResult Packctl(const std::vector<std::string>& arguments);

  /// Adds a plugin: a shell script in the plugins' folder.
  static void AddPlugin(const std::string& name, const std::string& script);

  /// Adds a plugin that keeps a journal of what plugins are told and of the status record at that moment, as another
  /// process finds it. An entry reads "EVENT TIMING NAME VERSION MEANING: STATUS STEP".
  static void AddJournal();
  [[nodiscard]] static std::vector<std::string> Journal();

  /// What the status store holds; empty without one.
  [[nodiscard]] static std::map<std::string, std::string> StatusRecord();

  /// The text of the file "codec" in the installed pack; empty without a pack.
  [[nodiscard]] static std::string InstalledPayload();

 private:
  [[nodiscard]] HttpResponse Serve(const HttpRequest& request) const;

  mutable std::mutex fault_mutex_;  // the server answers in threads of its own
  Fault fault_;
  HttpServer server_;
};

}  // namespace orbamira::test
