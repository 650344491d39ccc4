#include "platform/posix/trust.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/posix/files.h"
#include "platform/posix/unique_fd.h"

// A plugin runs with all rights of the updater. It is not enough to check its file: if another user may write a folder
// on the way to it, that user can replace the file between the check and the start. Checking an open file and executing
// it by its descriptor would work for a program, but not for a script: its interpreter gets a name again, and one that
// does not tell the script where it is. So every step of the path is checked. If all belong to root, nobody can change
// where the path leads, and the time between the check and the start does not matter.
namespace orbamira {
namespace {

UniqueFd OpenStep(int folder, const std::string& name, const std::string& shown) {
  UniqueFd step(openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!step.valid()) {
    ThrowErrno(shown);
  }
  return step;
}

// Where a file has a list of more users, the group's bits of its mode are the most that the list gives to any of them.
// `size_of_list` is asked only where they matter; it gives 0 or less where there is no list.
template <typename SizeOfList>
std::string WhyListIsDistrusted(const struct stat& status, const std::string& name, SizeOfList size_of_list) {
  const bool has_writers = (status.st_mode & S_IWGRP) != 0 && size_of_list("system.posix_acl_access") > 0;
  return has_writers ? "an access control list lets others write " + name : "";
}

/// Follows a path as the kernel does and checks each step.
class Walk {
 public:
  /// Starts at `root`; the way to it is not checked.
  explicit Walk(const std::string& root) { BeginAt(root); }

  std::string WhyDistrusted(std::string_view path) {
    Push(path);
    while (reason_.empty() && !left_.empty()) {
      Step();
    }
    return reason_;
  }

 private:
  void BeginAt(const std::string& root) {
    folder_ = UniqueFd(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder_.valid()) {
      ThrowErrno(root);
    }
    shown_ = root == "/" ? "" : root;
    Pass(Stat(folder_.get(), root), root);
  }

  /// Puts the names of the path before those that are left. The list is in reverse: the next name is its last.
  void Push(std::string_view path) {
    std::vector<std::string> names;
    while (!path.empty()) {
      const std::size_t end = std::min(path.find('/'), path.size());
      if (end > 0) {
        names.emplace_back(path.substr(0, end));
      }
      path.remove_prefix(std::min(end + 1, path.size()));
    }
    left_.insert(left_.end(), names.rbegin(), names.rend());
  }

  void Step() {
    const std::string name = std::exchange(left_.back(), {});
    left_.pop_back();
    const std::string shown = Below(shown_, name);
    UniqueFd step = OpenStep(folder_.get(), name, shown);
    const struct stat status = Stat(step.get(), shown);
    if (S_ISLNK(status.st_mode)) {
      FollowLink(step.get(), status, shown);
    } else if (left_.empty()) {
      Judge(status, shown, "it");
    } else {
      Pass(status, shown);
      folder_ = std::move(step);
      shown_ = shown;
    }
  }

  /// Nobody can change a link. Replacing it needs the right to write its folder, or to own the link in a sticky one.
  void FollowLink(int link, const struct stat& status, const std::string& shown) {
    constexpr int kMostLinks = 40;  // as many as the kernel follows
    if (++links_ > kMostLinks) {
      errno = ELOOP;
      ThrowErrno(shown);
    }
    struct stat owner_alone = status;
    owner_alone.st_mode = S_IFLNK;
    reason_ = orbamira::WhyDistrusted(owner_alone, kSelf, shown);
    const std::string target = ReadLink(link, "", shown);
    if (target.starts_with('/') && reason_.empty()) {
      BeginAt("/");
    }
    Push(target);
  }

  void Pass(struct stat status, const std::string& shown) {
    if ((status.st_mode & S_ISVTX) != 0) {
      status.st_mode &= ~static_cast<mode_t>(S_IWGRP | S_IWOTH);
    }
    Judge(status, shown, shown);
  }

  void Judge(const struct stat& status, const std::string& path, const std::string& name) {
    reason_ = orbamira::WhyDistrusted(status, kSelf, name);
    if (reason_.empty()) {
      reason_ = WhyListIsDistrusted(status, name,
                                    [&path](const char* list) { return lgetxattr(path.c_str(), list, nullptr, 0); });
    }
  }

  const Identity kSelf = Self();
  UniqueFd folder_;
  std::string shown_;
  std::vector<std::string> left_;
  int links_ = 0;
  std::string reason_;
};

}  // namespace

Identity Self() { return {geteuid(), getegid()}; }

std::string WhyDistrusted(const struct stat& status, const Identity& self, const std::string& name) {
  if ((status.st_mode & S_IWOTH) != 0) {
    return "everyone may write " + name;
  }
  if ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && status.st_gid != self.group) {
    return "group " + std::to_string(status.st_gid) + " may write " + name;
  }
  if (status.st_uid != 0 && status.st_uid != self.user) {
    return name + " belongs to user " + std::to_string(status.st_uid);
  }
  return "";
}

std::string WhyDistrusted(int file, const std::string& name) {
  const struct stat status = Stat(file, name);
  const std::string reason = WhyDistrusted(status, Self(), name);
  return !reason.empty() ? reason : WhyListIsDistrusted(status, name, [file](const char* list) {
    return fgetxattr(file, list, nullptr, 0);
  });
}

std::string WhyDistrusted(const std::string& path) {
  const char* const prefix = secure_getenv("ORBAMIRA_ROOT");
  const std::string root = prefix != nullptr ? prefix : "";
  if (!root.empty() && path.starts_with(root)) {
    return Walk(root).WhyDistrusted(std::string_view(path).substr(root.size()));
  }
  return Walk(path.starts_with('/') ? "/" : ".").WhyDistrusted(path);
}

}  // namespace orbamira
