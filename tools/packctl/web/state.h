#pragma once

#include <json/value.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/posix/unique_fd.h"
#include "tools/packctl/cli/command.h"
#include "tools/packctl/record/recorded_status.h"

namespace orbamira::packctl {

/// The process that holds the lock, asked of the kernel, so that nobody is kept from it meanwhile: its id, or nothing
/// when none does or when that cannot be told.
std::optional<int> HolderOf(const std::string& lock_path);

/// Looks at what there is to show.
class StateReader {
 public:
  /// The context's options are its own from now on.
  explicit StateReader(Context& context);

  /// What /api/state tells, but for "tag", "time" and "action". What cannot be read is among its problems. While
  /// nothing but a download's progress has changed, only that is read anew. May wait for the locks of what it reads.
  Json::Value Look();

 private:
  Context& context_;
  std::optional<StatusRecord> record_;  // of the last look
  Json::Value state_;
};

/// Looks whenever something has changed, on a thread of its own: it may have to wait for a lock that somebody keeps,
/// and clients should not.
class WebState {
 public:
  /// `changed` is called from that thread after each look that found something else than the one before. The console of
  /// the context is its own from now on.
  WebState(Context& context, std::function<void()> changed);
  ~WebState();
  WebState(const WebState&) = delete;
  WebState& operator=(const WebState&) = delete;

  /// What the last look found, and its "time"; null before the first has ended.
  [[nodiscard]] Json::Value Latest() const;

  /// Asks for a look now.
  void LookAgain() const;

 private:
  void Watch();

  std::function<void()> changed_;
  StateReader reader_;
  UniqueFd wake_;
  mutable std::mutex mutex_;
  Json::Value latest_;
  std::atomic<bool> ended_ = false;
  std::thread watcher_;
};

}  // namespace orbamira::packctl
