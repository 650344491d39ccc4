#pragma once

#include <optional>
#include <string_view>

// Settings of this appliance are lines of "key: value". INFO files are KEY="VALUE": they are part of a package.
namespace orbamira {

inline constexpr const char* kSettingForm = "KEY: VALUE";

struct SettingLine {
  std::string_view key;
  std::string_view value;
};

inline std::string_view Trimmed(std::string_view text, std::string_view unwanted) {
  const std::size_t begin = text.find_first_not_of(unwanted);
  return begin == std::string_view::npos ? "" : text.substr(begin, text.find_last_not_of(unwanted) + 1 - begin);
}

inline bool IsComment(std::string_view line) { return line.starts_with('#') || Trimmed(line, " ").empty(); }

inline std::optional<SettingLine> ParseSettingLine(std::string_view line) {
  const std::size_t end = line.find_first_of(":=");
  if (IsComment(line) || end == std::string_view::npos) {
    return std::nullopt;
  }
  return SettingLine{line.substr(0, end), Trimmed(line.substr(end + 1), line[end] == '=' ? "\"" : " ")};
}

}  // namespace orbamira
