#pragma once

#include <utility>

#include "platform/posix/unique_fd.h"

// The one way in which locks between processes are taken and given back here. Not installed.
namespace orbamira {

/// An open file or folder that may be locked (flock) against all other openings of it, in this process or another. The
/// lock goes with the object, and the kernel gives it back when the process dies.
class Flock {
 public:
  /// Takes over the file, with the lock that it may hold.
  explicit Flock(UniqueFd file) : file_(std::move(file)) {}

  /// Gives the lock back.
  ~Flock();

  Flock(Flock&&) = default;
  Flock& operator=(Flock&&) = delete;
  Flock(const Flock&) = delete;
  Flock& operator=(const Flock&) = delete;

  /// Waits until the lock is held. False, with errno set, on failure.
  [[nodiscard]] bool Lock();

  /// Takes the lock if nobody holds it. False, with errno set, otherwise: EWOULDBLOCK when another does.
  [[nodiscard]] bool TryLock();

  [[nodiscard]] int get() const { return file_.get(); }

  /// Hands the descriptor, and the lock with it, to the caller.
  [[nodiscard]] int Release() { return file_.Release(); }

 private:
  UniqueFd file_;
};

}  // namespace orbamira
