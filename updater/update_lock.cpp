#include "updater/update_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

#include "platform/constants.h"
#include "platform/orba_sdk_wrapper.h"
#include "platform/posix/files.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::updater {
namespace {

[[noreturn]] void ThrowErrno(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

UniqueFd OpenLockFile(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path();
  if (const int made = wrapper::OrbaSDKWrapper().MakeDirectory(folder); made < 0) {
    ThrowErrno(-made, "cannot make the folder " + folder);
  }
  UniqueFd fd = OpenFile(path, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  if (!fd.valid()) {
    ThrowErrno(errno, "cannot open the lock " + path);
  }
  return fd;
}

// What this process writes into the file.
std::string OwnName() { return std::string(program_invocation_short_name) + " (pid " + std::to_string(getpid()) + ")"; }

// What the holder wrote; empty when it has not got so far.
std::string ReadHolder(int fd) {
  constexpr std::size_t kLongestName = 256;
  const std::string text = ReadUpTo(fd, kLongestName).value_or("");
  return Printable(text.substr(0, text.find('\n')));
}

// Only a courtesy to whoever is refused: the lock holds whether or not this succeeds.
void WriteHolder(int fd) {
  const std::string text = OwnName() + "\n";
  static_cast<void>(ftruncate(fd, 0) == 0 && pwrite(fd, text.data(), text.size(), 0) > 0);
}

UniqueFd Acquire(const std::string& path) {
  UniqueFd fd = OpenLockFile(path);
  if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) {
      ThrowErrno(errno, "cannot take the lock " + path);
    }
    const std::string holder = ReadHolder(fd.get());
    throw Busy("another program is at work" + (holder.empty() ? "" : ": " + holder));
  }
  WriteHolder(fd.get());
  return fd;
}

}  // namespace

UpdateLock::UpdateLock() : fd_(Acquire(path::kPackctlLock).Release()) {}

UpdateLock::~UpdateLock() {
  // Closing alone would leave the lock with a process that another thread of the host forked meanwhile.
  flock(fd_, LOCK_UN);
  close(fd_);
}

}  // namespace orbamira::updater
