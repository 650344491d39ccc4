#pragma once

#include <json/value.h>

#include <ctime>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/packctl/record/failure.h"
#include "tools/packctl/web/page_actions.h"

/// What the page has packctl do.
namespace orbamira::packctl {

/// One action, at work or done.
struct WebAction {
  std::string command = {};  ///< the action's name
  bool running = false;
  std::optional<int> exit = {};            ///< empty while it runs; -N when signal N ended it
  std::optional<std::string> result = {};  ///< the command's own word; empty while it runs, or when it gave none
  std::vector<std::string> problems = {};  ///< what it complained of, a sentence each
  std::optional<Failure> failure = {};     ///< why it failed, as the command tells it
};

/// What the doctor found.
struct Diagnosis {
  std::time_t time = 0;                     ///< when it was done, in seconds since the epoch
  Json::Value findings = Json::arrayValue;  ///< as "packctl --json doctor" prints them
};

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

  /// Starts the action, for an update the unit. False when one is at work already. Throws std::system_error when it
  /// cannot be started.
  [[nodiscard]] bool Start(const PageAction& action);

  /// The action at work or the last one; empty when there was none.
  [[nodiscard]] std::optional<WebAction> Last() const;

  /// What the doctor found last; empty when it was not asked.
  [[nodiscard]] std::optional<Diagnosis> LastDiagnosis() const;

 private:
  std::string update_unit_;
  std::function<void()> changed_;
  mutable std::mutex mutex_;
  std::optional<WebAction> last_;
  std::optional<Diagnosis> diagnosis_;
  std::thread waiter_;
};

}  // namespace orbamira::packctl
