#include "platform/posix/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <stdexcept>

namespace orbamira {

std::string Below(const std::string& folder, const std::string& inner) {
  std::string path;
  path.reserve(folder.size() + 1 + inner.size());
  return path.append(folder).append("/").append(inner);
}

PathParts SplitPath(const std::string& path) {
  const std::string_view whole = path;
  const std::string_view bare = whole.substr(0, whole.find_last_not_of('/') + 1);
  const size_t name = bare.rfind('/') + 1;  // npos + 1 is 0
  PathParts parts{name == 0 ? "." : std::string(bare.substr(0, name)), std::string(bare.substr(name))};
  if (parts.name.empty() || parts.name == "." || parts.name == "..") {
    throw std::runtime_error(path + ": not a name for a file or folder");
  }
  return parts;
}

UniqueFd OpenDirectory(int at, const std::string& name, const std::string& shown) {
  UniqueFd directory(openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory.valid()) {
    ThrowErrno(shown);
  }
  return directory;
}

std::vector<std::string> ListDirectory(int directory, const std::string& shown) {
  const int own = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (own < 0) {
    ThrowErrno(shown);
  }
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(fdopendir(own), closedir);
  if (!stream) {
    close(own);
    ThrowErrno(shown);
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = readdir(stream.get())) {  // NOLINT(concurrency-mt-unsafe): a stream of our own
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") {
      names.emplace_back(name);
    }
  }
  if (errno != 0) {
    ThrowErrno(shown);
  }
  std::sort(names.begin(), names.end());
  return names;
}

struct stat Stat(int fd, const std::string& shown) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) {
    ThrowErrno(shown);
  }
  return status;
}

struct stat StatName(int at, const std::string& name, const std::string& shown) {
  struct stat status = {};
  if (fstatat(at, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    ThrowErrno(shown);
  }
  return status;
}

std::string ReadLink(int at, const std::string& name, const std::string& shown) {
  std::string target(PATH_MAX, '\0');
  const ssize_t length = readlinkat(at, name.c_str(), target.data(), target.size());
  if (length < 0) {
    ThrowErrno(shown);
  }
  target.resize(static_cast<size_t>(length));
  return target;
}

size_t ReadFully(int fd, void* buffer, size_t size, const std::string& shown) {
  size_t done = 0;
  while (done < size) {
    const ssize_t count = ReadSome(fd, static_cast<char*>(buffer) + done, size - done);
    if (count < 0) {
      ThrowErrno(shown);
    }
    if (count == 0) {
      break;
    }
    done += static_cast<size_t>(count);
  }
  return done;
}

void WriteFully(int fd, const void* data, size_t size, const std::string& shown) {
  size_t done = 0;
  while (done < size) {
    const ssize_t count = write(fd, static_cast<const char*>(data) + done, size - done);
    if (count >= 0) {
      done += static_cast<size_t>(count);
    } else if (errno != EINTR) {
      ThrowErrno(shown);
    }
  }
}

}  // namespace orbamira
