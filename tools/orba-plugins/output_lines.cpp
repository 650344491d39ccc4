#include "tools/orba-plugins/output_lines.h"

#include <algorithm>
#include <utility>

#include "platform/posix/files.h"
#include "tools/orba-plugins/failure.h"

namespace orbamira::plugins {
namespace {

constexpr std::size_t kMostBytes = std::size_t{64} * 1024;
constexpr std::size_t kMostLines = 1000;
constexpr std::size_t kLongestLine = 1024;

}  // namespace

OutputLines::OutputLines(std::string name) : name_(std::move(name)) {}

void OutputLines::Take(Stream stream, std::string_view data) {
  Line& line = lines_.at(stream);
  while (!data.empty() && !dropping_) {
    const std::size_t end = data.find('\n');
    const std::string_view piece = data.substr(0, end);
    const std::size_t room = kLongestLine - line.text.size();
    line.text += piece.substr(0, room);
    line.is_cut = line.is_cut || piece.size() > room;
    if (end == std::string_view::npos) {
      return;
    }
    End(line);
    data.remove_prefix(end + 1);
  }
}

void OutputLines::Finish() {
  for (Line& line : lines_) {
    End(line);
  }
}

void OutputLines::End(Line& line) {
  auto [text, is_cut] = std::exchange(line, {});
  if (text.ends_with('\r')) {
    text.pop_back();
  }
  if (text.empty() || dropping_) {
    return;
  }
  bytes_ += text.size() + 1;
  if (++count_ > kMostLines || bytes_ > kMostBytes) {
    Print("printed more than 64 KiB or 1000 lines, the rest is dropped");
    dropping_ = true;
    return;
  }
  Print(text + (is_cut ? " [cut]" : ""));
}

void OutputLines::Print(const std::string& text) { dropping_ = !PrintError(Printable(name_ + ": " + text) + "\n"); }

}  // namespace orbamira::plugins
