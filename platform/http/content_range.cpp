#include "platform/http/content_range.h"

#include <charconv>
#include <system_error>

namespace orbamira {
namespace {

// Takes a number from the beginning of the text.
std::optional<std::int64_t> TakeNumber(std::string_view& text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number < 0) {
    return std::nullopt;
  }
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

bool TakeText(std::string_view& text, std::string_view expected) {
  const bool found = text.starts_with(expected);
  text.remove_prefix(found ? expected.size() : 0);
  return found;
}

}  // namespace

std::optional<ContentRange> ParseContentRange(std::string_view text) {
  ContentRange range;
  if (!TakeText(text, "bytes ")) {
    return std::nullopt;
  }
  const std::optional<std::int64_t> first = TakeNumber(text);
  if (!first || !TakeText(text, "-")) {
    return std::nullopt;
  }
  const std::optional<std::int64_t> last = TakeNumber(text);
  if (!last || !TakeText(text, "/")) {
    return std::nullopt;
  }
  range.first = *first;
  range.last = *last;
  if (text != "*") {
    range.size = TakeNumber(text);
    if (!range.size || !text.empty()) {
      return std::nullopt;
    }
  }
  const bool sound = range.first <= range.last && (!range.size || range.last < *range.size);
  return sound ? std::optional<ContentRange>(range) : std::nullopt;
}

}  // namespace orbamira
