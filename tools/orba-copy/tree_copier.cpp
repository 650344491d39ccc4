#include "tools/orba-copy/tree_copier.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <vector>

#include "platform/posix/files.h"

namespace orbamira::tools {
namespace {

constexpr int kMaxDepth = 256;
constexpr size_t kCopyBuffer = 256UL * 1024;

/// Gives the open file the owner, mode and times of the original. The owner comes first: changing it clears mode bits.
void CopyAttributes(int fd, const struct stat& original, const std::string& shown) {
  if (geteuid() == 0 && fchown(fd, original.st_uid, original.st_gid) != 0) {
    ThrowErrno(shown);
  }
  const std::array times = {original.st_atim, original.st_mtim};
  if (fchmod(fd, original.st_mode & 07777) != 0 || futimens(fd, times.data()) != 0) {
    ThrowErrno(shown);
  }
}

void CopySymlink(int from, int to, const std::string& name, const struct stat& original, const std::string& shown) {
  const std::string leads_to = ReadLink(from, name, shown);
  const std::array times = {original.st_atim, original.st_mtim};
  if (symlinkat(leads_to.c_str(), to, name.c_str()) != 0 ||
      (geteuid() == 0 && fchownat(to, name.c_str(), original.st_uid, original.st_gid, AT_SYMLINK_NOFOLLOW) != 0) ||
      utimensat(to, name.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) != 0) {
    ThrowErrno(shown);
  }
}

/// Tries three ways. Each one continues where the one before stopped, so it does not matter why that stopped.
void CopyContents(int from, int to, const std::string& shown) {
  if (ioctl(to, FICLONE, from) == 0) {
    return;
  }
  while (copy_file_range(from, nullptr, to, nullptr, 1U << 30, 0) > 0) {
  }
  std::vector<char> buffer;
  buffer.resize(kCopyBuffer);
  while (const size_t count = ReadFully(from, buffer.data(), buffer.size(), shown)) {
    WriteFully(to, buffer.data(), count, shown);
  }
}

void SyncEach(int folder, const std::string& shown) {
  for (const std::string& name : ListDirectory(folder, shown)) {
    const std::string inner = Below(shown, name);
    const mode_t type = StatName(folder, name, inner).st_mode & S_IFMT;
    if (type == S_IFDIR) {
      SyncEach(OpenDirectory(folder, name, inner).get(), inner);
    } else if (type == S_IFREG) {
      const UniqueFd file(openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
      if (!file.valid() || fsync(file.get()) != 0) {
        ThrowErrno(inner);
      }
    }
  }
  if (fsync(folder) != 0) {
    ThrowErrno(shown);
  }
}

}  // namespace

TreeCopier::TreeCopier(int target) : target_(target), target_status_(Stat(target, "the new folder")) {}

TreeCopier::Seen::Seen(const struct stat& status)
    : inode(status.st_ino),
      folders(S_ISDIR(status.st_mode) ? status.st_nlink : 0),
      size(status.st_size),
      modified(status.st_mtim) {}

bool TreeCopier::Seen::operator==(const Seen& other) const {
  return inode == other.inode && folders == other.folders && size == other.size &&
         modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec;
}

void TreeCopier::Copy(int source, const std::string& shown) { CopyFolder(source, target_, shown, 1); }

void TreeCopier::CheckUnchanged(int source, const std::string& shown) const {
  std::vector<Seen> now;
  now.reserve(seen_.size());
  Look(source, shown, now);
  if (now != seen_) {
    throw std::runtime_error(shown + ": changed while it was copied");
  }
}

void TreeCopier::Look(int folder, const std::string& shown, std::vector<Seen>& seen) {
  seen.emplace_back(Stat(folder, shown));
  for (const std::string& name : ListDirectory(folder, shown)) {
    const std::string inner = Below(shown, name);
    const struct stat entry = StatName(folder, name, inner);
    if (S_ISDIR(entry.st_mode)) {
      Look(OpenDirectory(folder, name, inner).get(), inner, seen);
    } else {
      seen.emplace_back(entry);
    }
  }
}

void TreeCopier::CopyFolder(int from, int to, const std::string& shown, int depth) {
  const struct stat folder = Stat(from, shown);
  if (folder.st_dev == target_status_.st_dev && folder.st_ino == target_status_.st_ino) {
    throw std::runtime_error(shown + ": cannot copy a folder into itself");
  }
  if (depth > kMaxDepth) {
    throw std::runtime_error(shown + ": deeper than " + std::to_string(kMaxDepth) + " folders");
  }
  if (folder.st_nlink == 0) {
    throw std::runtime_error(shown + ": removed while it was copied");
  }
  seen_.emplace_back(folder);
  for (const std::string& name : ListDirectory(from, shown)) {
    const std::string inner = Below(shown, name);
    const struct stat entry = StatName(from, name, inner);
    if (!S_ISDIR(entry.st_mode)) {
      seen_.emplace_back(entry);
    }
    switch (entry.st_mode & S_IFMT) {
      case S_IFREG:
        CopyFile(from, to, name, inner);
        break;
      case S_IFDIR: {
        if (mkdirat(to, name.c_str(), 0700) != 0) {
          ThrowErrno(inner);
        }
        CopyFolder(OpenDirectory(from, name, inner).get(), OpenDirectory(to, name, inner).get(), inner, depth + 1);
        break;
      }
      case S_IFLNK:
        CopySymlink(from, to, name, entry, inner);
        break;
      default:
        throw std::runtime_error(inner + ": neither a file, a folder nor a symbolic link");
    }
  }
  CopyAttributes(to, folder, shown);
}

void TreeCopier::CopyFile(int from, int to, const std::string& name, const std::string& shown) {
  if (links_work_ && Link(from, to, name, shown)) {
    return;
  }
  const UniqueFd original(openat(from, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!original.valid()) {
    ThrowErrno(shown);
  }
  const UniqueFd copy(openat(to, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!copy.valid()) {
    ThrowErrno(shown);
  }
  CopyContents(original.get(), copy.get(), shown);
  CopyAttributes(copy.get(), Stat(original.get(), shown), shown);
}

/// Links the file. False when it must be copied instead.
bool TreeCopier::Link(int from, int to, const std::string& name, const std::string& shown) {
  if (linkat(from, name.c_str(), to, name.c_str(), 0) == 0) {
    return true;
  }
  switch (errno) {
    case EXDEV:
    case EOPNOTSUPP:
      links_work_ = false;  // the same for every file that follows
      return false;
    case EPERM:  // a file of someone else's, or a file system without links
    case EMLINK:
      return false;
    default:
      ThrowErrno(shown);
  }
}

void MakeDurable(int folder, const std::string& shown) {
  if (syncfs(folder) == 0) {
    return;
  }
  if (errno != ENOSYS) {
    ThrowErrno(shown);
  }
  SyncEach(folder, shown);
}

}  // namespace orbamira::tools
