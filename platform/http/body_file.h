#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>

namespace orbamira {

/// Writes a download's body to the caller's stream, with what a stream lacks: checks for free space, truncation, sync.
/// Not installed.
///
/// Every operation throws std::system_error when it fails. A body that cannot be written is dropped at once, because
/// others need the room on a full disk: the record of the failure, to begin with.
class BodyFile {
 public:
  /// The body begins at the stream's position. A regular file gets mode 0600, whatever the umask. Fails when the stream
  /// is not open.
  explicit BodyFile(std::ofstream& stream);

  /// Hands the stream what was added and not flushed; errors are ignored.
  ~BodyFile();

  BodyFile(const BodyFile&) = delete;
  BodyFile& operator=(const BodyFile&) = delete;

  /// Fails when `size` more bytes would leave too little free space: 5 % of the file system, at most 64 MiB, stay free
  /// for others. Every write checks this too. Passes where the file system does not say how much is free.
  void ExpectRoomFor(std::int64_t size);

  /// Appends to the body.
  void Write(std::string_view bytes);

  /// Drops the body written so far.
  void StartOver();

  /// Writes the whole body to the file.
  void Flush();

  /// Writes the whole body to the disk, so that it survives a power cut.
  void Sync();

 private:
  [[nodiscard]] int Descriptor() const;
  void MakePrivate();
  void WritePiece();
  [[nodiscard]] bool WriteOut();
  void Drop();
  [[noreturn]] void DropAndThrow(const std::string& what);

  std::ofstream& stream_;
  std::streamoff begin_ = 0;
  std::string piece_;  // not yet written
};

}  // namespace orbamira
