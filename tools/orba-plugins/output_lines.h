#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

// Passes on what a plugin prints.
namespace orbamira::plugins {

/// Passes on what a plugin prints to the standard error, line by line and at once: "NAME: TEXT", with control
/// characters as \ooo and without empty lines. Lines of the plugin's standard output and error do not mix. Together
/// they are limited to 64 KiB or 1000 lines, and a line to 1 KiB, because our reader may keep it all. The rest is
/// dropped, and a line says so.
class OutputLines {
 public:
  enum Stream : std::size_t { kOutput, kError };

  explicit OutputLines(std::string name);

  void Take(Stream stream, std::string_view data);

  /// Passes on the last lines, if they have no end. Call it once, when the plugin has ended.
  void Finish();

 private:
  struct Line {
    std::string text;
    bool is_cut = false;
  };

  void End(Line& line);
  void Print(const std::string& text);

  std::string name_;
  std::array<Line, 2> lines_;
  std::size_t bytes_ = 0;
  std::size_t count_ = 0;
  bool dropping_ = false;
};

}  // namespace orbamira::plugins
