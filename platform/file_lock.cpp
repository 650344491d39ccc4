#include "platform/file_lock.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/folder_of.h"
#include "platform/posix/errors.h"
#include "platform/posix/flock.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::store {
namespace {

// flock needs no right to write, so a process that may only read the file can use the lock too.
UniqueFd OpenLockFile(const std::string& lock_path) {
  UniqueFd fd = OpenFile(lock_path, O_RDONLY);
  if (!fd.valid() && errno == ENOENT) {
    MakeFolderOf(lock_path);
    fd = OpenFile(lock_path, O_RDONLY | O_CREAT | O_EXCL, 0660);
    if (fd.valid()) {
      if (fchmod(fd.get(), 0660) != 0) {  // whatever the umask
        ThrowErrno("set mode of lock file " + lock_path);
      }
    } else if (errno == EEXIST) {  // another process was faster
      fd = OpenFile(lock_path, O_RDONLY);
    }
  }
  if (!fd.valid()) {
    ThrowErrno("open lock file " + lock_path);
  }
  return fd;
}

Flock Acquire(const std::string& lock_path) {
  Flock lock(OpenLockFile(lock_path));
  if (!lock.Lock()) {
    ThrowErrno("lock " + lock_path);
  }
  return lock;
}

}  // namespace

FileLock::FileLock(const std::string& lock_path) : fd_(Acquire(lock_path).Release()) {}

FileLock::~FileLock() { const Flock given_back{UniqueFd(fd_)}; }

}  // namespace orbamira::store
