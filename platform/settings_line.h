#pragma once

#include <optional>
#include <string_view>

// How a line of a settings file is written. Whoever reads one, and whoever looks for mistakes in one, asks here, so a
// port with another syntax replaces this header alone. Not installed.
namespace orbamira {

/// The syntax, to be shown to people.
inline constexpr const char* kSettingForm = "KEY=VALUE";

/// A line taken apart.
struct SettingLine {
  std::string_view key;
  std::string_view value;
};

/// The line without the carriage return that it may end in.
inline std::string_view WithoutCarriageReturn(std::string_view line) {
  return line.substr(0, line.size() - (line.ends_with('\r') ? 1 : 0));
}

/// The text without blanks around it.
inline std::string_view WithoutBlanks(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  return begin == std::string_view::npos ? std::string_view()
                                         : text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

/// Whether the line is blank or a comment.
inline bool IsComment(std::string_view line) {
  return line.starts_with('#') || WithoutBlanks(WithoutCarriageReturn(line)).empty();
}

/// Key and value, without blanks around both and without one pair of double quotes around the value; empty for a
/// comment and for a line of another form.
inline std::optional<SettingLine> ParseSettingLine(std::string_view line) {
  line = WithoutCarriageReturn(line);
  const std::size_t equals = line.find('=');
  if (IsComment(line) || equals == std::string_view::npos) {
    return std::nullopt;
  }
  std::string_view value = WithoutBlanks(line.substr(equals + 1));
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
    value = value.substr(1, value.size() - 2);
  }
  return SettingLine{WithoutBlanks(line.substr(0, equals)), value};
}

}  // namespace orbamira
