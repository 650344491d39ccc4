#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <set>

// The processes below this one.
namespace orbamira::plugins {

/// From now on a process whose parent ends, anywhere below this one, becomes a child of this one: none gets away by a
/// double fork, or by a session of its own.
void AdoptOrphans();

/// Takes the children that have ended and calls `ended` with the number and the wait status of each. False when no
/// child is left.
bool ReapChildren(const std::function<void(pid_t, int)>& ended);

/// Ends the children of this process: asks each by SIGTERM, and kills it two seconds later. Only a child is ever sent a
/// signal, because its number cannot become another's before it was reaped; what it leaves behind becomes our child,
/// and is next. Without /proc only a group is ended.
class ChildrenEnd {
 public:
  /// A group that `leader`, a child that is not yet reaped, leads is asked at once; 0 when there is none.
  explicit ChildrenEnd(pid_t leader);

  /// To be called after each ReapChildren(), about twenty times a second, while a child is left. False when it is not
  /// worth while any more: not even SIGKILL ends a process that hangs in a system call.
  bool Continue();

  /// The leader was reaped: its number is no longer ours to use.
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
