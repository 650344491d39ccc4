#include "tests/fuzz/flow/input.h"

#include <algorithm>

#include "tests/fuzz/fuzzing.h"

namespace orbamira::fuzz::flow {
namespace {

constexpr std::size_t kLongest = 0xffff;
constexpr std::size_t kLengthSize = 2;

std::size_t TakeLength(const std::string& bytes, std::size_t& at) {
  std::size_t length = 0;
  for (std::size_t i = 0; i < kLengthSize && at < bytes.size(); ++i, ++at) {
    length |= std::size_t{static_cast<uint8_t>(bytes[at])} << (8 * i);
  }
  return std::min(length, bytes.size() - at);
}

}  // namespace

Input::Input(const std::string& bytes) {
  std::size_t at = 0;
  for (std::string& part : parts_) {
    const std::size_t length = TakeLength(bytes, at);
    part = bytes.substr(at, length);
    at += length;
  }
}

std::string Input::Bytes() const {
  std::string bytes;
  for (const std::string& part : parts_) {
    const std::size_t length = std::min(part.size(), kLongest);
    bytes += LittleEndian(length, kLengthSize) + part.substr(0, length);
  }
  return bytes;
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::string rest = text; !rest.empty();) {
    lines.push_back(TakeLine(rest));
  }
  return lines;
}

std::string Expanded(std::string text, const std::string& token, const std::string& value) {
  for (std::size_t at = 0; (at = text.find(token, at)) != std::string::npos; at += value.size()) {
    text.replace(at, token.size(), value);
  }
  return text;
}

}  // namespace orbamira::fuzz::flow
