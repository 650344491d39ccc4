#include "platform/posix/sector_file.h"

#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <thread>

#include "platform/posix/unique_fd.h"

namespace orbamira {
namespace {

// Keeps readers and writers of one file apart: some file systems (ext4) show a reader a part of a write. Whoever may
// read a file can also keep a lock on it, so nobody waits for long.
class BriefLock {
 public:
  BriefLock(int fd, int operation) : fd_(fd) {
    constexpr int kTries = 100;
    for (int i = 0; i < kTries && !Try(operation) && errno == EWOULDBLOCK; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  ~BriefLock() {
    if (held_) {
      flock(fd_, LOCK_UN);
    }
  }
  BriefLock(const BriefLock&) = delete;
  BriefLock& operator=(const BriefLock&) = delete;

  [[nodiscard]] bool held() const { return held_; }

 private:
  bool Try(int operation) {
    held_ = flock(fd_, operation | LOCK_NB) == 0;
    return held_;
  }

  int fd_;
  bool held_ = false;
};

bool WriteSector(int fd, const std::string& text) {
  // Aligned, it lies in one page of memory: the kernel copies it in one go, which no kill can cut.
  alignas(kSectorSize) std::array<char, kSectorSize> sector;
  std::copy_n(text.begin(), sector.size(), sector.begin());
  return pwrite(fd, sector.data(), sector.size(), 0) == static_cast<ssize_t>(sector.size());
}

}  // namespace

bool IsSectorFile(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_size == static_cast<off_t>(kSectorSize);
}

bool HoldsSector(int fd, const std::string& text) {
  std::array<char, kSectorSize> sector;
  return pread(fd, sector.data(), sector.size(), 0) == static_cast<ssize_t>(sector.size()) &&
         std::string_view(sector.data(), sector.size()) == text;
}

std::optional<std::string> ReadUnmixed(int fd, std::size_t limit) {
  const BriefLock lock(fd, LOCK_SH);  // without it nobody overwrites the file either
  lseek(fd, 0, SEEK_SET);
  return ReadUpTo(fd, limit);
}

bool OverwriteSector(int fd, const std::string& before, const std::string& after, Durability durability) {
  const BriefLock lock(fd, LOCK_EX);
  if (!lock.held()) {
    return false;
  }
  if (WriteSector(fd, after) && (durability == Durability::kVisible || fdatasync(fd) == 0)) {
    return true;
  }
  static_cast<void>(WriteSector(fd, before));
  return false;
}

}  // namespace orbamira
