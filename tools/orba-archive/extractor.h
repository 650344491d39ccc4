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

/// Unpacks payloads from untrusted sources. Whatever they contain, nothing outside the folder is created, changed or
/// followed, no existing file in it is touched, and no more is unpacked than the limit and the file system allow.
///
/// Files keep the mode bits 0755; folders are always open to their owner. The owner is the user who unpacks, and the
/// time is the time of unpacking, so the age of a pack's files tells when it was installed. Owners, times, set-id bits
/// and attributes in the archive are ignored. Devices, FIFOs and sockets have no place in a pack and are an error.
class Extractor {
 public:
  /// `folder` is open and outlives the object; `limit` bounds the bytes unpacked, as UnpackBudget counts them. Throws
  /// std::system_error.
  Extractor(int folder, uint64_t limit);

  /// Unpacks every member. Throws std::runtime_error at the first that it cannot unpack; what was unpacked before
  /// stays. The process's umask must be 0.
  void Unpack(ArchiveReader& archive);

 private:
  void Place(ArchiveReader& archive, const Member& member);
  void PlaceFile(ArchiveReader& archive, const Member& member, int parent, const std::string& name);
  void PlaceHardLink(const Member& member, int parent, const std::string& name);
  UniqueFd EnterFolder(int at, const std::string& name);
  int OpenParent(const std::vector<std::string_view>& parts);

  int folder_;
  UnpackBudget budget_;
  UniqueFd parent_;          // the folder of the last member: most members have the same as the one before
  std::string parent_path_;  // its path
  std::unordered_set<ino_t> files_;
};

}  // namespace orbamira::tools
