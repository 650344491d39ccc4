#include "tools/orba-copy/partial_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>

#include "platform/posix/older_systems.h"
#include "platform/posix/remove_tree.h"

namespace orbamira::tools {

PartialFolder::PartialFolder(const std::string& target) : target_(target) {
  const PathParts parts = SplitPath(target);
  name_ = parts.name;
  parent_ = UniqueFd(open(parts.parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent_.valid()) {
    ThrowErrno(parts.parent);
  }
  CheckTargetIsFree();

  std::string partial = parts.parent + "/." + name_ + ".partial.XXXXXX";
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
  if (partial_.empty()) {
    return;
  }
  try {
    RemoveTree(parent_.get(), partial_, partial_);
  } catch (const std::exception&) {
    return;  // recovery removes the rest
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
  struct stat status {};
  if (fstatat(parent_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    throw std::runtime_error(target_ + ": already exists");
  }
  if (errno != ENOENT) {
    ThrowErrno(target_);
  }
}

void PartialFolder::Rename(const std::string& from, const std::string& to) const {
  if (!RenameToFree(parent_.get(), from, to)) {
    ThrowErrno(target_);
  }
}

}  // namespace orbamira::tools
