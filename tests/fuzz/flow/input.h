#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace orbamira::fuzz::flow {

/// What one input consists of. The reply and the answer may have tokens: see flow.cpp.
enum class Part {
  kSteps,         ///< three bytes each: what a host does, what strikes it, and at which event
  kWorld,         ///< bytes: what the appliance is like before: see world.h
  kServer,        ///< bytes: how requests are answered, healthily when there are none left: see server.h
  kReply,         ///< the server's reply
  kInfo,          ///< the package's INFO
  kManifest,      ///< the lines of the package's MANIFEST in front of the digests
  kMembers,       ///< further members of the package, one a line: see package.h
  kPayload,       ///< members of the payload, one a line
  kDamage,        ///< changes of the finished package, four bytes each: see package.h
  kSettings,      ///< the machine's settings
  kStore,         ///< the status store; none when empty, as the files below
  kHealth,        ///< the record of rejected versions
  kHealthyPack,   ///< the note of the healthy pack
  kAccepted,      ///< what packages were accepted before
  kRequirements,  ///< the codecs that applications ask for
  kAnswer,        ///< what a plugin answers when it is asked for its ids
  kCount
};

constexpr auto kPartCount = static_cast<std::size_t>(Part::kCount);

/// An input taken apart. Any bytes are an input: a part that is cut is as long as it is, and the ones after it are
/// empty.
class Input {
 public:
  Input() = default;
  explicit Input(const std::string& bytes);

  /// Each part as its length, two bytes, lowest first, and its bytes.
  [[nodiscard]] std::string Bytes() const;

  std::string& operator[](Part part) { return parts_.at(static_cast<std::size_t>(part)); }
  const std::string& operator[](Part part) const { return parts_.at(static_cast<std::size_t>(part)); }

 private:
  std::array<std::string, kPartCount> parts_;
};

/// The lines of a text, without their ends.
std::vector<std::string> LinesOf(const std::string& text);

/// The text with each `token` replaced.
std::string Expanded(std::string text, const std::string& token, const std::string& value);

/// Takes bytes off a part one after the other; 0 when there are none left.
class ByteReader {
 public:
  explicit ByteReader(std::string bytes) : bytes_(std::move(bytes)) {}

  [[nodiscard]] bool done() const { return next_ >= bytes_.size(); }
  uint8_t Next() { return done() ? 0 : static_cast<uint8_t>(bytes_[next_++]); }

 private:
  std::string bytes_;
  std::size_t next_ = 0;
};

}  // namespace orbamira::fuzz::flow
