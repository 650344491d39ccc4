#pragma once

#include <cstddef>
#include <istream>
#include <iterator>
#include <string>

// Limits how much text from outside is parsed as JSON. Not installed.
namespace orbamira::updater {

/// Far more bytes than any honest text has. A parsed text takes up to 130 times its length in memory, so without this
/// limit a hostile text could use up the machine's.
inline constexpr std::size_t kJsonTextLimit = std::size_t{1024} * 1024;

/// Reads the rest of the stream. Empty, which is no JSON, when the rest is longer than the limit.
inline std::string ReadJsonText(std::istream& stream) {
  std::string text;
  for (std::istreambuf_iterator<char> at(stream), end; at != end; ++at) {
    if (text.size() == kJsonTextLimit) {
      return "";
    }
    text += *at;
  }
  return text;
}

}  // namespace orbamira::updater
