#pragma once

#include <string>

#include "platform/export.h"

namespace orbamira::store {

/// An exclusive lock between processes, held for the life of the object: a scope guard around what must be read or
/// written as one. It is flock on the named file, so the kernel gives it back when the holder dies, and two objects in
/// one process exclude each other as well.
class ORBAMIRA_EXPORT FileLock {
 public:
  /// Blocks until the lock is held. The lock file (mode 0660) and its folder are made when missing; the file is never
  /// removed. Throws std::system_error when it cannot be opened or locked.
  explicit FileLock(const std::string& lock_path);

  /// Gives the lock back.
  ~FileLock();

  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int fd_;
};

}  // namespace orbamira::store
