#include "platform/posix/file_status.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace orbamira {
namespace {

namespace fs = std::filesystem;

fs::file_type TypeOf(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return fs::file_type::regular;
    case S_IFDIR:
      return fs::file_type::directory;
    case S_IFLNK:
      return fs::file_type::symlink;
    case S_IFCHR:
      return fs::file_type::character;
    case S_IFBLK:
      return fs::file_type::block;
    case S_IFIFO:
      return fs::file_type::fifo;
    case S_IFSOCK:
      return fs::file_type::socket;
    default:
      return fs::file_type::unknown;
  }
}

fs::file_status Look(const fs::path& path, int flags, std::error_code& error) {
  error.clear();
  struct stat about {};
  if (fstatat(AT_FDCWD, path.c_str(), &about, flags) == 0) {
    return fs::file_status(TypeOf(about.st_mode), static_cast<fs::perms>(about.st_mode) & fs::perms::mask);
  }
  if (errno == ENOENT || errno == ENOTDIR) {
    return fs::file_status(fs::file_type::not_found);
  }
  error.assign(errno, std::generic_category());
  return fs::file_status(fs::file_type::none);
}

fs::file_status LookOrThrow(const fs::path& path, int flags) {
  std::error_code error;
  const fs::file_status status = Look(path, flags, error);
  if (error) {
    throw fs::filesystem_error("status", path, error);
  }
  return status;
}

}  // namespace

fs::file_status StatusOf(const fs::path& path) { return LookOrThrow(path, 0); }

fs::file_status StatusOf(const fs::path& path, std::error_code& error) { return Look(path, 0, error); }

fs::file_status LinkStatusOf(const fs::path& path) { return LookOrThrow(path, AT_SYMLINK_NOFOLLOW); }

fs::file_status LinkStatusOf(const fs::path& path, std::error_code& error) {
  return Look(path, AT_SYMLINK_NOFOLLOW, error);
}

}  // namespace orbamira
