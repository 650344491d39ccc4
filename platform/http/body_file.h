#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>

namespace orbamira {

/// The caller's stream while a body is written to it, with the checks and the operations on the disk that a stream
/// leaves out. Everything throws std::system_error with the reason when it fails. A body that cannot be written is
/// dropped at once: on a full disk others need its room, the record of the failure first of all.
class BodyFile {
 public:
  /// The body begins where the stream stands. A regular file is its owner's alone from then on, mode 0600, whatever the
  /// process's umask. Fails when the stream is not open.
  explicit BodyFile(std::ofstream& stream);

  /// Leaves with the stream what was added and not flushed.
  ~BodyFile();

  BodyFile(const BodyFile&) = delete;
  BodyFile& operator=(const BodyFile&) = delete;

  /// Fails when that many bytes more would leave too little free on the file system, as far as it tells: a twentieth of
  /// it, at most 64 MiB, stays free for others. Every write is held to the same.
  void ExpectRoomFor(std::int64_t size);

  /// Adds to the body.
  void Write(std::string_view bytes);

  /// Drops the body written so far.
  void StartOver();

  /// Hands the whole body to the system.
  void Flush();

  /// Puts the whole body on disk, so that it outlives a power cut.
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
