#pragma once

#include <stdexcept>

#include "platform/export.h"

namespace orbamira::updater {

/// Thrown when another process holds the update lock. what() names the holder if it is known: "another program is at
/// work: packctl (pid 4711)".
class ORBAMIRA_EXPORT Busy : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The right to change pack, download and record, held for the life of the object. One program on the appliance has it
/// at a time. packctl takes it for each command that changes something; take it in your program around each change,
/// too.
///
/// It is flock on orbamira::path::kPackctlLock, so the kernel releases it when the holder dies. Programs that the
/// holder starts do not inherit it.
class ORBAMIRA_EXPORT UpdateLock {
 public:
  /// Takes the lock, and writes this program's name and process id into the file for programs that are refused. Never
  /// waits, because an update may take long. Creates the file (mode 0600) and its folder when they are missing.
  ///
  /// Throws Busy when the lock is held, also by another object of this process, and std::system_error when the file
  /// cannot be opened or locked.
  UpdateLock();

  /// Releases the lock.
  ~UpdateLock();

  UpdateLock(const UpdateLock&) = delete;
  UpdateLock& operator=(const UpdateLock&) = delete;

 private:
  int fd_;
};

}  // namespace orbamira::updater
