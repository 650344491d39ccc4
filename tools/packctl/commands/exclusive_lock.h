#pragma once

#include <stdexcept>
#include <string>

namespace orbamira::packctl {

/// Thrown where the lock is held by another process; what() names it where that is known.
class Busy : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Keeps two packctl that change something apart. Held for the life of the object and, unlike the locks of the library,
/// never waited for: an update may take long, and whoever starts a second one wants to hear so at once. The kernel
/// gives the lock back when its holder dies.
class ExclusiveLock {
 public:
  /// Takes the lock and writes the process id into the file for others to read. The lock file (mode 0600) and its
  /// folder are made when missing. Throws Busy when another holds it, std::system_error when it cannot be had at all.
  explicit ExclusiveLock(const std::string& lock_path);
  ~ExclusiveLock();

  ExclusiveLock(const ExclusiveLock&) = delete;
  ExclusiveLock& operator=(const ExclusiveLock&) = delete;

 private:
  int fd_;
};

}  // namespace orbamira::packctl
