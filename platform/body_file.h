#pragma once

#include <fstream>
#include <string_view>

namespace orbamira::wrapper {

/// The caller's stream while a body is written to it, with the checks and the operations on the disk that a stream
/// leaves out. Everything throws std::system_error with the reason when it fails.
class BodyFile {
 public:
  /// The body begins where the stream stands. Fails when the stream is not open.
  explicit BodyFile(std::ofstream& stream);

  /// Adds to the body.
  void Write(std::string_view bytes);

  /// Drops the body written so far.
  void StartOver();

  /// Hands the whole body to the system.
  void Flush();

  /// Puts the whole body on disk, so that it outlives a power cut.
  void Sync();

 private:
  std::ofstream& stream_;
  std::streamoff begin_ = 0;
};

}  // namespace orbamira::wrapper
