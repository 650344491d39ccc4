#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "platform/posix/unique_fd.h"

namespace orbamira {

/// When a replaced file counts as replaced.
enum class Durability {
  kVisible,  ///< every process sees the new content; a power cut may bring back the old one
  kDurable,  ///< the new content also outlives a power cut
};

/// Replaces the file `path` whole, or makes it, with the given content and permission bits (whatever the umask). A
/// reader sees the old content or the new, never a part, and so does whoever looks after a power cut. A symbolic link
/// at `path` is replaced, not followed.
///
/// Throws std::system_error naming the file when that fails. The file then is as it was and nothing is left beside it;
/// only when the very last step of kDurable failed, syncing the folder, is the new content already in place.
///
/// Two writers at once do not mix their contents; which of them wins is for the caller's lock to decide.
///
/// Returns the new file, still open for reading and writing.
UniqueFd ReplaceFile(const std::string& path, std::string_view content, mode_t mode, Durability durability);

/// As ReplaceFile with kVisible, but never over a file that exists: returns no valid descriptor when there is one.
[[nodiscard]] UniqueFd MakeFile(const std::string& path, std::string_view content, mode_t mode);

class TemporaryFile;

/// A file that will replace another. Its room on disk is taken when it is made: what a caller gets only once, such as
/// a token in exchange for another, can then be kept even if the disk is full by that time.
///
/// Only one at a time may exist for a path, which is for the caller's lock to see to. It has a fixed name beside
/// `path`, so that the next one removes what a killed process left.
class ReservedFile {
 public:
  /// Takes the room for `size` bytes. Throws std::system_error naming the file.
  ReservedFile(const std::string& path, std::size_t size);

  /// Removes the file that did not come into place.
  ~ReservedFile();
  ReservedFile(const ReservedFile&) = delete;
  ReservedFile& operator=(const ReservedFile&) = delete;

  /// Replaces the file, durably; fails as ReplaceFile does. Content beyond `size` may fail for want of room. Only once.
  void Replace(std::string_view content, mode_t mode);

  /// The name of the file before it is in place.
  static std::string NameBeside(const std::string& path);

 private:
  std::string path_;
  std::unique_ptr<TemporaryFile> file_;
};

}  // namespace orbamira
