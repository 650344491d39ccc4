#include "tools/orba-copy/partial_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace orbamira::tools {
namespace {

/// Removes as much as it can: what remains is left to recovery.
void RemoveTree(int parent, const std::string& name) {
  if (unlinkat(parent, name.c_str(), 0) == 0 || errno != EISDIR) {
    return;
  }
  // A read-only folder must be opened up before an ordinary user can empty it.
  fchmodat(parent, name.c_str(), 0700, 0);
  try {
    const UniqueFd folder = OpenDirectory(parent, name, name);
    for (const std::string& inner : ListDirectory(folder.get(), name)) {
      RemoveTree(folder.get(), inner);
    }
  } catch (const std::exception&) {
    return;
  }
  unlinkat(parent, name.c_str(), AT_REMOVEDIR);
}

}  // namespace

PartialFolder::PartialFolder(const std::string& target) : target_(target) {
  std::string path = target;
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  const size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  name_ = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name_.empty() || name_ == "." || name_ == "..") {
    throw std::runtime_error(target + ": not a name for a new folder");
  }
  parent_ = UniqueFd(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent_.valid()) {
    ThrowErrno(parent);
  }
  CheckTargetIsFree();

  std::string partial = parent + "/." + name_ + ".partial.XXXXXX";
  if (mkdtemp(partial.data()) == nullptr) {
    ThrowErrno(partial);
  }
  partial_ = partial.substr(partial.rfind('/') + 1);
  try {
    folder_ = OpenDirectory(parent_.get(), partial_, partial);
  } catch (...) {
    unlinkat(parent_.get(), partial_.c_str(), AT_REMOVEDIR);
    throw;
  }
}

PartialFolder::~PartialFolder() {
  if (!partial_.empty()) {
    RemoveTree(parent_.get(), partial_);
  }
}

void PartialFolder::MoveIntoPlace() {
  Rename(partial_, name_);
  if (fsync(parent_.get()) != 0) {
    const int error = errno;
    Rename(name_, partial_);
    errno = error;
    ThrowErrno(target_);
  }
  partial_.clear();
}

void PartialFolder::CheckTargetIsFree() const {
  if (faccessat(parent_.get(), name_.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
    throw std::runtime_error(target_ + ": already exists");
  }
  if (errno != ENOENT) {
    ThrowErrno(target_);
  }
}

void PartialFolder::Rename(const std::string& from, const std::string& to) const {
  if (renameat2(parent_.get(), from.c_str(), parent_.get(), to.c_str(), RENAME_NOREPLACE) == 0) {
    return;
  }
  // A kernel or file system without the flag: all that remains possible in its place is an empty folder made within the
  // last moments, for rename() replaces no other.
  if (errno == EINVAL || errno == ENOSYS) {
    CheckTargetIsFree();
    if (renameat(parent_.get(), from.c_str(), parent_.get(), to.c_str()) == 0) {
      return;
    }
  }
  ThrowErrno(target_);
}

}  // namespace orbamira::tools
