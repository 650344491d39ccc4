#pragma once

#include <sys/types.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "tools/orba-archive/byte_source.h"

struct archive;

namespace orbamira::tools {

/// One member of an archive, as it stands there. Nothing in it has been checked.
struct Member {
  enum class Kind { kFile, kFolder, kSymlink, kHardLink, kOther };

  std::string name;
  Kind kind = Kind::kOther;
  mode_t mode = 0;
  uint64_t size = 0;   ///< bytes when unpacked, with holes; 0 for anything but a file
  uint64_t begin = 0;  ///< where its contents begin in the archive, as that is without compression
  std::string target;  ///< where a symbolic link leads, or the other name of a hard link's file
};

/// A piece of a file's contents. The bytes between two pieces are zero.
struct Piece {
  uint64_t offset = 0;
  std::span<const uint8_t> data;
};

/// Reads a tar archive once, from the first member to the last. It is strict about the end: an archive that is cut off
/// anywhere, or has anything but zeros after its end mark, is an error. The memory for a header is limited, and for a
/// package also the memory for all headers together. Errors are std::runtime_error or, for a failed read,
/// std::system_error.
class ArchiveReader {
 public:
  /// Reads the open file from its start.
  ArchiveReader(int file, Layer layer);
  ~ArchiveReader();
  ArchiveReader(const ArchiveReader&) = delete;
  ArchiveReader& operator=(const ArchiveReader&) = delete;

  /// Goes to the next member; false after the last one, when the archive has proved to be whole. Read the contents of
  /// the member before it first.
  [[nodiscard]] bool Next(Member& member);

  /// Reads the next piece of the current member's contents, valid until the next call; false after the last one. Pieces
  /// lie within the member's size.
  [[nodiscard]] bool Read(Piece& piece);

  /// Calls `action` for each member; it must read the contents. When it throws std::runtime_error, the member's name is
  /// put in front of the message.
  void ForEach(const std::function<void(const Member&)>& action);

 private:
  ssize_t Feed(const void** buffer);
  [[noreturn]] void Fail();
  void CheckEnd();

  std::unique_ptr<ByteSource> source_;
  std::unique_ptr<archive, int (*)(archive*)> archive_;
  std::exception_ptr source_error_;  // carried past the C library in between
  uint64_t size_of_member_ = 0;
  uint64_t members_ = 0;
  uint64_t max_header_;       // bytes of one header,
  uint64_t max_headers_;      // and of all together
  uint64_t headers_ = 0;      // bytes of those read so far
  uint64_t fed_ = 0;          // bytes taken from the source
  uint64_t end_of_data_ = 0;  // where the last byte that is not zero ended
  uint64_t header_end_ = 0;   // how far the source may be read for the header that is being read
};

}  // namespace orbamira::tools
