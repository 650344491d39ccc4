#include "platform/posix/older_systems.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace orbamira {
namespace {

// The errors by which a kernel or a file system says that it does not support a call or a flag.
bool IsUnknown(int error) { return error == ENOSYS || error == EINVAL || error == EOPNOTSUPP; }

UniqueFd OpenUnnamedFileIn(const std::string& folder, const char* name) {
  std::string path = folder + "/" + name + ".XXXXXX";
  UniqueFd file(mkostemp(path.data(), O_CLOEXEC));
  if (file.valid()) {
    unlink(path.c_str());
  }
  return file;
}

}  // namespace

bool RenameToFree(int folder, const std::string& from, const std::string& to) {
  if (renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0) {
    return true;
  }
  if (!IsUnknown(errno)) {
    return false;
  }
  struct stat status {};
  if (fstatat(folder, to.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    errno = EEXIST;
    return false;
  }
  return errno == ENOENT && renameat(folder, from.c_str(), folder, to.c_str()) == 0;
}

bool SetFolderMode(int at, const std::string& name, mode_t mode) {
  if (fchmodat(at, name.c_str(), mode, AT_SYMLINK_NOFOLLOW) == 0) {
    return true;
  }
  if (!IsUnknown(errno)) {
    return false;
  }
  // The C library needs /proc for that call, and a chroot may lack it.
  const UniqueFd folder(openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder.valid()) {
    return fchmod(folder.get(), mode) == 0;
  }
  // The owner may not open the folder. If it becomes a link right now, an ordinary user only changes their own file.
  return errno == EACCES && geteuid() != 0 && fchmodat(at, name.c_str(), mode, 0) == 0;
}

UniqueFd OpenUnnamedFile(const char* name) {
  UniqueFd file(memfd_create(name, MFD_CLOEXEC));
  for (const char* const folder : {"/dev/shm", "/run", "/tmp"}) {
    if (!file.valid()) {
      file = OpenUnnamedFileIn(folder, name);
    }
  }
  return file;
}

void CloseFrom(int first) {
  if (close_range(static_cast<unsigned>(first), UINT_MAX, 0) == 0) {
    return;
  }
  if (access("/proc/self/fd", R_OK | X_OK) == 0) {  // without it, closefrom() may abort the process
    closefrom(first);
    return;
  }
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    for (auto fd = static_cast<rlim_t>(first); fd < limit.rlim_max; ++fd) {
      close(static_cast<int>(fd));
    }
  }
}

}  // namespace orbamira
