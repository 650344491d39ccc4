#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>

// Owns, opens and reads file descriptors. Not installed.
namespace orbamira {

/// Owns a descriptor and closes it; negative when there is none. Closing does not change errno.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() {
    if (valid()) {
      const int error = errno;  // what failed before matters more to whoever looks at errno next
      close(fd_);
      errno = error;
    }
  }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool valid() const { return fd_ >= 0; }

  /// Hands the descriptor to the caller.
  [[nodiscard]] int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

/// The same open file at a descriptor above standard input, output and error. If a host has closed one of these, the
/// next open() gets its number, and the host would print into our file or pass it to a child as standard input. Not
/// valid, with errno set, when `fd` is not valid or no descriptor is left.
[[nodiscard]] UniqueFd AboveStandardStreams(UniqueFd fd);

/// Opens the file close-on-exec and above the standard streams. Does not wait for the other end of a pipe. Not valid,
/// with errno set, on failure.
[[nodiscard]] UniqueFd OpenFile(const std::string& path, int flags, mode_t mode = 0);

/// read(2), repeated when a signal interrupts it.
[[nodiscard]] ssize_t ReadSome(int fd, void* buffer, std::size_t size);

/// Reads the rest of the file, at most `limit` bytes. Empty, with errno set, on failure.
[[nodiscard]] std::optional<std::string> ReadUpTo(int fd, std::size_t limit);

}  // namespace orbamira
