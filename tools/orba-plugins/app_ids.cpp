#include "tools/orba-plugins/app_ids.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <stdexcept>

#include "platform/printable.h"
#include "updater/json_text.h"

namespace orbamira::plugins {
namespace {

constexpr std::string_view kBegin = "[";
constexpr std::string_view kEnd = "]\n";

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = CharacterLength(text);
    if (length == 0) {
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
