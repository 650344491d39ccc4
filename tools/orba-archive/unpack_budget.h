#pragma once

#include <cstdint>

namespace orbamira::tools {

/// Limits the disk space that an archive may take while it is unpacked: the bytes, by a limit and by what is free, and
/// the number of files, folders and links.
///
/// Each file, folder and link counts as one block of 4096 bytes plus its contents in whole blocks. That is about what
/// it takes on disk, and the same on every file system.
class UnpackBudget {
 public:
  /// The bytes that a folder counts as contents.
  static constexpr uint64_t kFolder = 1;

  /// Makes the budget for the file system of the open folder; at most `limit` bytes. Throws std::system_error.
  UnpackBudget(int folder, uint64_t limit);

  /// Call it before creating a file, folder or link with this many bytes of contents. Throws std::runtime_error when
  /// there is no room for it.
  void Take(uint64_t contents);

 private:
  uint64_t limit_;
  uint64_t free_ = 0;
  uint64_t taken_ = 0;
  uint64_t max_entries_;
  uint64_t entries_ = 0;
};

}  // namespace orbamira::tools
