#include "platform/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/folder_of.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::store {
namespace {

[[noreturn]] void Throw(int error, const std::string& what, const std::string& path) {
  throw std::system_error(error, std::generic_category(), what + " " + path);
}

// Reading is enough for flock, so a process that may only read the file can take part.
UniqueFd OpenLockFile(const std::string& lock_path) {
  UniqueFd fd = OpenFile(lock_path, O_RDONLY);
  if (!fd.valid() && errno == ENOENT) {
    MakeFolderOf(lock_path);
    fd = OpenFile(lock_path, O_RDONLY | O_CREAT | O_EXCL, 0660);
    if (fd.valid()) {
      if (fchmod(fd.get(), 0660) != 0) {  // whatever the umask
        Throw(errno, "set mode of lock file", lock_path);
      }
    } else if (errno == EEXIST) {  // another process was faster
      fd = OpenFile(lock_path, O_RDONLY);
    }
  }
  if (!fd.valid()) {
    Throw(errno, "open lock file", lock_path);
  }
  return fd;
}

UniqueFd Acquire(const std::string& lock_path) {
  UniqueFd fd = OpenLockFile(lock_path);
  while (flock(fd.get(), LOCK_EX) != 0) {
    if (errno != EINTR) {
      Throw(errno, "lock", lock_path);
    }
  }
  return fd;
}

}  // namespace

FileLock::FileLock(const std::string& lock_path) : fd_(Acquire(lock_path).Release()) {}

FileLock::~FileLock() {
  // Closing alone would leave the lock with a process that another thread of the host forked meanwhile.
  flock(fd_, LOCK_UN);
  close(fd_);
}

}  // namespace orbamira::store
