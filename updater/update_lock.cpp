#include "updater/update_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "platform/constants.h"
#include "platform/orba_sdk_wrapper.h"
#include "platform/posix/errors.h"
#include "platform/posix/flock.h"
#include "platform/posix/unique_fd.h"
#include "platform/printable.h"

namespace orbamira::updater {
namespace {

UniqueFd OpenLockFile(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path();
  if (const int made = wrapper::OrbaSDKWrapper().MakeDirectory(folder); made < 0) {
    ThrowErrno("cannot make the folder " + folder, -made);
  }
  UniqueFd fd = OpenFile(path, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  if (!fd.valid()) {
    ThrowErrno("cannot open the lock " + path);
  }
  return fd;
}

// The name that this process writes into the file.
std::string OwnName() { return std::string(program_invocation_short_name) + " (pid " + std::to_string(getpid()) + ")"; }

// The name that the holder wrote; empty when it has not written it yet.
std::string ReadHolder(int fd) {
  constexpr std::size_t kLongestName = 256;
  const std::string text = ReadUpTo(fd, kLongestName).value_or("");
  return Printable(text.substr(0, text.find('\n')));
}

// Best effort, for programs that are refused: the lock is held even if this fails.
void WriteHolder(int fd) {
  const std::string text = OwnName() + "\n";
  static_cast<void>(ftruncate(fd, 0) == 0 && pwrite(fd, text.data(), text.size(), 0) > 0);
}

Flock Acquire(const std::string& path) {
  Flock lock(OpenLockFile(path));
  if (!lock.TryLock()) {
    if (errno != EWOULDBLOCK) {
      ThrowErrno("cannot take the lock " + path);
    }
    const std::string holder = ReadHolder(lock.get());
    throw Busy("another program is at work" + (holder.empty() ? "" : ": " + holder));
  }
  WriteHolder(lock.get());
  return lock;
}

}  // namespace

UpdateLock::UpdateLock() : fd_(Acquire(path::kPackctlLock).Release()) {}

UpdateLock::~UpdateLock() { const Flock given_back{UniqueFd(fd_)}; }

}  // namespace orbamira::updater
