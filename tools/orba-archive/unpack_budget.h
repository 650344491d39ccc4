#pragma once

#include <cstdint>

namespace orbamira::tools {

/// What an archive may take of the disk while it is unpacked: bytes up to a limit and to what is free, and a bounded
/// number of files, folders and links.
///
/// Each of them counts for a block of 4096 bytes besides its contents, which count in whole blocks: about what they
/// cost on disk, and the same on every file system.
class UnpackBudget {
 public:
  /// The contents of a folder.
  static constexpr uint64_t kFolder = 1;

  /// For the file system of the open folder. `limit` bounds the bytes. Throws std::system_error.
  UnpackBudget(int folder, uint64_t limit);

  /// To be called before a file, folder or link with so many bytes of contents is made. Throws std::runtime_error when
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
