#pragma once

#include <cstddef>
#include <istream>
#include <iterator>
#include <string>

// How much of a text from outside is taken to be parsed as JSON. Not installed.
namespace orbamira::updater {

/// Far more than an honest text has. Parsed, a text takes up to 130 times its length in memory, so it is this bound
/// that keeps a hostile one from taking the machine's.
inline constexpr std::size_t kJsonTextLimit = std::size_t{1024} * 1024;

/// What is left of the stream. Empty, which no parser takes for JSON, when that is more than the limit; the rest is
/// then not read.
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
