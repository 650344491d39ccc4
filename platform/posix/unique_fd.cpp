#include "platform/posix/unique_fd.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace orbamira {

UniqueFd AboveStandardStreams(UniqueFd fd) {
  if (!fd.valid() || fd.get() > STDERR_FILENO) {
    return fd;
  }
  return UniqueFd(fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

UniqueFd OpenFile(const std::string& path, int flags, mode_t mode) {
  return AboveStandardStreams(UniqueFd(open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode)));
}

ssize_t ReadSome(int fd, void* buffer, std::size_t size) {
  ssize_t count = 0;
  do {
    count = read(fd, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

std::optional<std::string> ReadUpTo(int fd, std::size_t limit) {
  std::string text;
  std::array<char, 4096> buffer;
  while (text.size() < limit) {
    const ssize_t count = ReadSome(fd, buffer.data(), std::min(buffer.size(), limit - text.size()));
    if (count < 0) {
      return std::nullopt;
    }
    if (count == 0) {
      break;
    }
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace orbamira
