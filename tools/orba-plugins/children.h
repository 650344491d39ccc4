#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <set>

// Adopts, reaps and ends the processes that plugins start.
namespace orbamira::plugins {

/// From now on, every orphan among this process's descendants becomes its child. So none escapes by a double fork or a
/// session of its own. Throws std::system_error.
void AdoptOrphans();

/// Reaps the children that have ended, and calls `ended` with the process id and wait status of each. False when no
/// child is left.
bool ReapChildren(const std::function<void(pid_t, int)>& ended);

/// Ends the children of this process: SIGTERM first, SIGKILL two seconds later. Signals go only to children, because
/// the id of a child stays its own until it is reaped. What a child leaves behind becomes our child and is ended next.
/// Without /proc only a process group is ended.
class ChildrenEnd {
 public:
  /// Sends SIGTERM to the group of `leader`, a child that is not yet reaped; 0 for no group.
  explicit ChildrenEnd(pid_t leader);

  /// Call it after each ReapChildren(), about twenty times a second, while a child is left. False when there is nothing
  /// more to try: not even SIGKILL ends a process that hangs in a system call.
  bool Continue();

  /// Call it when the leader is reaped: its id may belong to another process from then on.
  void ForgetLeader() { leader_ = 0; }

 private:
  using Clock = std::chrono::steady_clock;

  void AskNewChildren();
  void Kill() const;

  const Clock::time_point begin_ = Clock::now();
  const pid_t group_;
  pid_t leader_;
  std::set<pid_t> asked_;
};

/// How long to wait for an event between two calls of ChildrenEnd::Continue().
inline constexpr std::chrono::milliseconds kEndInterval{50};

}  // namespace orbamira::plugins
