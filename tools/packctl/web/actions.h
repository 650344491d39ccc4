#pragma once

#include <json/value.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace orbamira::packctl {

/// Runs packctl's own commands, one at a time, each as a program and in a session of its own: it goes on when we end.
class WebActions {
 public:
  /// `changed` is called from another thread each time an action has ended. With an `update_unit`, an update is a start
  /// of that systemd unit, which checks first.
  WebActions(std::string update_unit, std::function<void()> changed);

  /// Waits for the action at work.
  ~WebActions();
  WebActions(const WebActions&) = delete;
  WebActions& operator=(const WebActions&) = delete;

  /// Starts "packctl COMMAND", or the unit. False when one is at work already. Throws std::system_error when it cannot
  /// be started.
  [[nodiscard]] bool Start(const std::string& command);

  /// The action at work or the last one; null when there was none: {"command", "running", "exit", "result",
  /// "problems"}, of which exit and result are null while it runs. The exit status is -N when signal N ended it.
  [[nodiscard]] Json::Value Last() const;

 private:
  std::string update_unit_;
  std::function<void()> changed_;
  mutable std::mutex mutex_;
  Json::Value last_;
  std::thread waiter_;
};

}  // namespace orbamira::packctl
