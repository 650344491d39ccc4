#include "platform/settings_file.h"

#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

// Settings of this appliance are lines of "key: value". INFO files are KEY="VALUE": they are part of a package.
namespace orbamira {
namespace {

std::string_view Trimmed(std::string_view text, std::string_view unwanted) {
  const std::size_t begin = text.find_first_not_of(unwanted);
  return begin == std::string_view::npos ? "" : text.substr(begin, text.find_last_not_of(unwanted) + 1 - begin);
}

}  // namespace

std::string ReadSetting(const std::string& file, const std::string& key) {
  const bool is_info = std::filesystem::path(file).filename() == "INFO";
  const char separator = is_info ? '=' : ':';
  std::error_code error;
  if (!std::filesystem::is_regular_file(file, error)) {
    return "";
  }
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t end = line.find(separator);
    if (!line.starts_with('#') && end != std::string::npos && line.substr(0, end) == key) {
      return std::string(Trimmed(std::string_view(line).substr(end + 1), is_info ? "\"" : " "));
    }
  }
  return "";
}

}  // namespace orbamira
