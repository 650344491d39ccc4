#pragma once

#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace orbamira::test {

/// No file of this process grows beyond so many bytes for the life of the object, as on a full disk; what would fails
/// with EFBIG. Programs that it starts are held to the same.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    if (getrlimit(RLIMIT_FSIZE, &before_) != 0) {
      throw std::system_error(errno, std::generic_category(), "getrlimit");
    }
    const rlimit limit{bytes, before_.rlim_max};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
      throw std::system_error(errno, std::generic_category(), "setrlimit");
    }
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    static_cast<void>(std::signal(SIGXFSZ, handler_));
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  void (*handler_)(int);
  rlimit before_{};
};

}  // namespace orbamira::test
