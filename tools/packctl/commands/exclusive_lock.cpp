#include "tools/packctl/commands/exclusive_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "platform/orba_sdk_wrapper.h"

namespace orbamira::packctl {
namespace {

[[noreturn]] void ThrowErrno(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

int OpenLockFile(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path();
  if (const int made = wrapper::OrbaSDKWrapper().MakeDirectory(folder); made < 0) {
    ThrowErrno(-made, "cannot make the folder " + folder);
  }
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    ThrowErrno(errno, "cannot open the lock " + path);
  }
  return fd;
}

// The process id that the holder wrote; empty when it has not got so far.
std::string ReadHolder(int fd) {
  std::array<char, 16> buffer{};
  const ssize_t length = pread(fd, buffer.data(), buffer.size(), 0);
  const std::string_view text(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  return std::string(text.substr(0, text.find_first_not_of("0123456789")));
}

}  // namespace

ExclusiveLock::ExclusiveLock(const std::string& lock_path) : fd_(OpenLockFile(lock_path)) {
  if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    const std::string holder = ReadHolder(fd_);
    close(fd_);
    if (error != EWOULDBLOCK) {
      ThrowErrno(error, "cannot take the lock " + lock_path);
    }
    throw Busy("another packctl is at work" + (holder.empty() ? "" : " (pid " + holder + ")"));
  }
  // Only a courtesy to the reader of a message: the lock holds whether or not this succeeds.
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(fd_, 0) != 0 || pwrite(fd_, pid.data(), pid.size(), 0) < 0) {
    errno = 0;
  }
}

ExclusiveLock::~ExclusiveLock() { close(fd_); }

}  // namespace orbamira::packctl
