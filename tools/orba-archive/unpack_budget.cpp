#include "tools/orba-archive/unpack_budget.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "platform/posix/files.h"

namespace orbamira::tools {
namespace {

constexpr uint64_t kBlock = 4096;
// Many times what a pack has.
constexpr uint64_t kMaxEntries = 20'000;

uint64_t Cost(uint64_t contents) {
  const uint64_t blocks = contents / kBlock + (contents % kBlock != 0 ? 1 : 0);
  return (1 + blocks) * kBlock;
}

}  // namespace

UnpackBudget::UnpackBudget(int folder, uint64_t limit) : limit_(limit), max_entries_(kMaxEntries) {
  struct statvfs file_system = {};
  if (fstatvfs(folder, &file_system) != 0) {
    ThrowErrno("cannot tell the free space");
  }
  free_ = static_cast<uint64_t>(file_system.f_bavail) * file_system.f_frsize;
  // A file system that creates inodes on demand says that it has none. On others, a tenth of the free inodes is left
  // for the rest of the machine.
  if (file_system.f_files != 0) {
    max_entries_ = std::min<uint64_t>(max_entries_, file_system.f_favail - file_system.f_favail / 10);
  }
}

void UnpackBudget::Take(uint64_t contents) {
  if (entries_ == max_entries_) {
    throw std::runtime_error("more than " + std::to_string(max_entries_) + " files, folders and links");
  }
  const uint64_t bytes = Cost(contents);
  if (bytes > limit_ - taken_) {
    throw std::runtime_error("unpacks to more than the limit of " + std::to_string(limit_) + " bytes");
  }
  if (taken_ + bytes > free_) {
    throw std::runtime_error("unpacks to more than the " + std::to_string(free_) + " bytes that are free");
  }
  ++entries_;
  taken_ += bytes;
}

}  // namespace orbamira::tools
