#pragma once

#include <stdexcept>

#include "platform/export.h"

namespace orbamira::updater {

/// Thrown where another process holds the update lock. what() is a sentence's beginning that names the holder where it
/// is known: "another program is at work: packctl (pid 4711)".
class ORBAMIRA_EXPORT Busy : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The right to change pack, download and record, which one program on the appliance has at a time: packctl takes it
/// for each changing command, and every host should for each change. It is flock on orbamira::path::kPackctlLock, held
/// for the life of the object and given back by the kernel when the holder dies. Programs that the holder starts do not
/// inherit it.
class ORBAMIRA_EXPORT UpdateLock {
 public:
  /// Takes the lock and writes this program's name and process id into the file, for whoever is refused. Never waits:
  /// an update may take long. The file (mode 0600) and its folder are made when missing.
  ///
  /// Throws Busy when another holds the lock, also another object of this process; std::system_error when it cannot be
  /// had at all.
  UpdateLock();

  /// Gives the lock back.
  ~UpdateLock();

  UpdateLock(const UpdateLock&) = delete;
  UpdateLock& operator=(const UpdateLock&) = delete;

 private:
  int fd_;
};

}  // namespace orbamira::updater
