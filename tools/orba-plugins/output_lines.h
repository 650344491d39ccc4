#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

// What becomes of that which a plugin prints.
namespace orbamira::plugins {

/// Hands on what a plugin prints as it comes, line by line, to the standard error: "NAME: TEXT", with control
/// characters as \ooo and without empty lines. The standard output and error of the plugin are told apart, so that
/// their lines do not mix, and have one bound, since whoever reads us may keep it all: 64 KiB or 1000 lines, and 1 KiB
/// for a line. What is beyond is dropped, and a line says so.
class OutputLines {
 public:
  enum Stream : std::size_t { kOutput, kError };

  explicit OutputLines(std::string name);

  void Take(Stream stream, std::string_view data);

  /// Hands on what is left, lines without an end.
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
