#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/posix/files.h"
#include "tools/orba-archive/archive_reader.h"
#include "tools/orba-archive/unpack_budget.h"

namespace orbamira::tools {

/// Unpacks payloads that nobody vouches for: whatever they hold, nothing outside the folder is made, changed or
/// reached, no existing file in it is touched, and no more is made than the limit and the file system allow.
///
/// Files keep the mode bits 0755; folders are always open to their owner; the owner is whoever unpacks, and the time
/// that of unpacking: the age of a pack's files tells when it was installed. What the archive asks for beyond that
/// (owners, times, set-id bits, attributes) is left out, and what has no place in a pack (devices, FIFOs, sockets) is
/// an error.
class Extractor {
 public:
  /// `folder` is open and outlives the object; `limit` bounds the bytes unpacked, as UnpackBudget counts them. Throws
  /// std::system_error.
  Extractor(int folder, uint64_t limit);

  /// Unpacks every member. Throws std::runtime_error at the first that cannot be; what was unpacked by then stays. The
  /// process's umask must be 0.
  void Unpack(ArchiveReader& archive);

 private:
  void Place(ArchiveReader& archive, const Member& member);
  void PlaceFile(ArchiveReader& archive, const Member& member, int parent, const std::string& name);
  void PlaceHardLink(const Member& member, int parent, const std::string& name);
  UniqueFd EnterFolder(int at, const std::string& name);
  int OpenParent(const std::vector<std::string_view>& parts);

  int folder_;
  UnpackBudget budget_;
  UniqueFd parent_;          // the folder that the last member went into,
  std::string parent_path_;  // and its path: most members share it with the one before
  std::unordered_set<ino_t> files_;
};

}  // namespace orbamira::tools
