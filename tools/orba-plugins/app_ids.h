#pragma once

#include <string>
#include <string_view>
#include <vector>

// The application ids that plugins name, and the answer that is made of them.
namespace orbamira::plugins {

/// The ids in what a plugin printed: one a line, without the blanks around it and without empty lines. Throws
/// std::invalid_argument for what is no UTF-8.
std::vector<std::string> IdsIn(std::string_view text);

/// A JSON array of ids, never larger than what the library reads.
class AppIdAnswer {
 public:
  /// Appends all these ids. False, and then none of them, when the answer would get too large.
  bool Add(const std::vector<std::string>& ids);

  /// The whole text.
  [[nodiscard]] std::string Text() const;

 private:
  std::string ids_;  // with a comma between two of them
};

}  // namespace orbamira::plugins
