#pragma once

#include <string>
#include <string_view>
#include <vector>

// Reads the application ids that plugins print, and makes the answer file's text from them.
namespace orbamira::plugins {

/// The ids in a plugin's output: one per line, without blanks around them and without empty lines. Throws
/// std::invalid_argument when the output is not UTF-8.
std::vector<std::string> IdsIn(std::string_view text);

/// A JSON array of ids, never longer than what the library reads.
class AppIdAnswer {
 public:
  /// Appends all of the ids. False when the answer would get too long; none of them is then appended.
  bool Add(const std::vector<std::string>& ids);

  /// The text of the whole array.
  [[nodiscard]] std::string Text() const;

 private:
  std::string ids_;  // with a comma between two of them
};

}  // namespace orbamira::plugins
