#include "platform/posix/remove_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <random>
#include <string_view>
#include <system_error>

#include "platform/posix/files.h"
#include "platform/posix/older_systems.h"

namespace orbamira {
namespace {

std::string NewName() {
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  constexpr int kSuffixLength = 6;
  std::random_device random;
  std::uniform_int_distribution<size_t> any(0, kLetters.size() - 1);
  std::string name = ".removed.";
  for (int i = 0; i < kSuffixLength; ++i) {
    name += kLetters[any(random)];
  }
  return name;
}

/// Renames the folder and returns its new name, or the old one when it cannot be renamed.
std::string MoveAside(int parent, const std::string& name) {
  while (true) {
    std::string aside = NewName();
    if (RenameToFree(parent, name, aside)) {
      return aside;
    }
    if (errno != EEXIST) {
      return name;
    }
  }
}

/// Opens the folder with the rights needed to empty it: an ordinary user may have to change its mode first. Not valid,
/// with errno set, on failure.
UniqueFd OpenToEmpty(int parent, const std::string& name) {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  UniqueFd folder(openat(parent, name.c_str(), kFlags));
  if (!folder.valid() && errno == EACCES && SetFolderMode(parent, name, S_IRWXU)) {
    folder = UniqueFd(openat(parent, name.c_str(), kFlags));
  }
  if (folder.valid() && geteuid() != 0) {
    static_cast<void>(fchmod(folder.get(), S_IRWXU));
  }
  return folder;
}

void Empty(int folder, const std::string& shown) {
  std::exception_ptr first;
  for (const std::string& name : ListDirectory(folder, shown)) {
    try {
      RemoveTree(folder, name, Below(shown, name));
    } catch (const std::system_error&) {
      first = first ? first : std::current_exception();
    }
  }
  if (first) {
    std::rethrow_exception(first);
  }
}

}  // namespace

void RemoveAtOnce(const std::string& path) {
  const PathParts parts = SplitPath(path);
  const UniqueFd parent(open(parts.parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent.valid()) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return;
    }
    ThrowErrno(parts.parent);
  }
  struct stat status = {};
  const bool is_folder =
      fstatat(parent.get(), parts.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
  RemoveTree(parent.get(), is_folder ? MoveAside(parent.get(), parts.name) : parts.name, path);
}

void RemoveTree(int parent, const std::string& name, const std::string& shown) {
  if (unlinkat(parent, name.c_str(), 0) == 0 || errno == ENOENT) {
    return;
  }
  if (errno != EISDIR) {
    ThrowErrno(shown);
  }
  if (const UniqueFd folder = OpenToEmpty(parent, name); folder.valid()) {
    Empty(folder.get(), shown);
  } else if (errno != ENOENT) {
    ThrowErrno(shown);
  }
  if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
    ThrowErrno(shown);
  }
}

}  // namespace orbamira
