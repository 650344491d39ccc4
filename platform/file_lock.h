#pragma once

#include <string>

#include "platform/export.h"

namespace orbamira::store {

/// An exclusive lock between processes, held for the life of the object. Use it as a scope guard around reads and
/// writes that belong together.
///
/// The lock is flock on the named file. So the kernel releases it when the holder dies, and two objects in one process
/// exclude each other too. A thread that makes a second lock on the same file while it holds the first waits for ever.
class ORBAMIRA_EXPORT FileLock {
 public:
  /// Takes the lock; blocks until it is free. Creates the lock file (mode 0660) and its folder when they are missing;
  /// the file is never removed. A process needs only the right to read the file. Throws std::system_error when the
  /// file cannot be opened or locked.
  explicit FileLock(const std::string& lock_path);

  /// Releases the lock.
  ~FileLock();

  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int fd_;
};

}  // namespace orbamira::store
