#include "tools/orba-plugins/app_ids.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <stdexcept>

#include "updater/json_text.h"

namespace orbamira::plugins {
namespace {

constexpr std::string_view kBegin = "[";
constexpr std::string_view kEnd = "]\n";

/// How many bytes the character that begins with this byte has; 0 when none begins so.
std::size_t LengthOf(unsigned char first) {
  if (first < 0x80) {
    return 1;
  }
  if (first >= 0xc2 && first <= 0xdf) {
    return 2;
  }
  if (first >= 0xe0 && first <= 0xef) {
    return 3;
  }
  return first >= 0xf0 && first <= 0xf4 ? 4 : 0;
}

/// Whether the bytes are one character: neither a longer form than it needs, nor a surrogate, nor beyond the last.
bool IsCharacter(std::string_view bytes) {
  constexpr std::array<std::uint32_t, 5> kLeast = {0, 0, 0x80, 0x800, 0x10000};
  constexpr std::uint32_t kLast = 0x10ffff;
  std::uint32_t code = static_cast<unsigned char>(bytes[0]) & (0x7fU >> bytes.size());
  for (const char byte : bytes.substr(1)) {
    const auto value = static_cast<unsigned char>(byte);
    if ((value & 0xc0U) != 0x80) {
      return false;
    }
    code = code << 6U | (value & 0x3fU);
  }
  return code >= kLeast.at(bytes.size()) && code <= kLast && (code < 0xd800 || code > 0xdfff);
}

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = LengthOf(static_cast<unsigned char>(text.front()));
    if (length == 0 || length > text.size() || (length > 1 && !IsCharacter(text.substr(0, length)))) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

std::string_view WithoutBlanks(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\v\f";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  return begin == std::string_view::npos ? "" : text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x20) {
      std::array<char, 8> escape{};
      static_cast<void>(std::snprintf(escape.data(), escape.size(), "\\u%04x", byte));
      quoted += escape.data();
      continue;
    }
    if (character == '"' || character == '\\') {
      quoted += '\\';
    }
    quoted += character;
  }
  return quoted + '"';
}

}  // namespace

std::vector<std::string> IdsIn(std::string_view text) {
  if (!IsUtf8(text)) {
    throw std::invalid_argument("printed what is not UTF-8");
  }
  std::vector<std::string> ids;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    if (const std::string_view id = WithoutBlanks(text.substr(0, end)); !id.empty()) {
      ids.emplace_back(id);
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return ids;
}

bool AppIdAnswer::Add(const std::vector<std::string>& ids) {
  std::string longer = ids_;
  for (const std::string& id : ids) {
    longer += (longer.empty() ? "" : ", ") + Quoted(id);
  }
  const bool fits = kBegin.size() + longer.size() + kEnd.size() <= updater::kJsonTextLimit;
  if (fits) {
    ids_ = std::move(longer);
  }
  return fits;
}

std::string AppIdAnswer::Text() const { return std::string(kBegin) + ids_ + std::string(kEnd); }

}  // namespace orbamira::plugins
