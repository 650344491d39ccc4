#pragma once

#include <utility>

#include "platform/posix/unique_fd.h"

// Takes and releases locks between processes. Not installed.
namespace orbamira {

/// An open file or folder that can be locked with flock. The lock excludes every other object of the file, in this
/// process or another. The kernel releases it when the process dies.
class Flock {
 public:
  /// Takes ownership of the file, and of its lock if it holds one.
  explicit Flock(UniqueFd file) : file_(std::move(file)) {}

  /// Releases the lock.
  ~Flock();

  Flock(Flock&&) = default;
  Flock& operator=(Flock&&) = delete;
  Flock(const Flock&) = delete;
  Flock& operator=(const Flock&) = delete;

  /// Takes the lock; blocks until it is free. False, with errno set, on failure.
  [[nodiscard]] bool Lock();

  /// Takes the lock if it is free. False, with errno set, on failure: EWOULDBLOCK when it is not free.
  [[nodiscard]] bool TryLock();

  [[nodiscard]] int get() const { return file_.get(); }

  /// Hands the descriptor to the caller, with the lock.
  [[nodiscard]] int Release() { return file_.Release(); }

 private:
  UniqueFd file_;
};

}  // namespace orbamira
