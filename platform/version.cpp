#include "platform/version.h"

#include <algorithm>
#include <compare>
#include <string_view>

namespace orbamira {
namespace {

constexpr std::string_view kDigits = "0123456789";

// Takes the first part from the text; empty when there is none.
std::string_view TakePart(std::string_view& text) {
  const std::size_t end = std::min(text.find_first_of(".-_+"), text.size());
  const std::string_view part = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return part;
}

bool IsNumber(std::string_view part) { return part.find_first_not_of(kDigits) == std::string_view::npos; }

// Numbers may be longer than any integer. Without leading zeros, the longer one is greater; zero is the empty text.
std::strong_ordering CompareNumbers(std::string_view left, std::string_view right) {
  left.remove_prefix(std::min(left.find_first_not_of('0'), left.size()));
  right.remove_prefix(std::min(right.find_first_not_of('0'), right.size()));
  return left.size() != right.size() ? left.size() <=> right.size() : left <=> right;
}

std::strong_ordering CompareParts(std::string_view left, std::string_view right) {
  const bool left_is_number = IsNumber(left);
  if (left_is_number != IsNumber(right)) {
    return left_is_number ? std::strong_ordering::less : std::strong_ordering::greater;
  }
  return left_is_number ? CompareNumbers(left, right) : left <=> right;
}

}  // namespace

bool IsNewVersion(const std::string& current, const std::string& candidate) {
  std::string_view old_rest = current;
  std::string_view new_rest = candidate;
  while (!old_rest.empty() || !new_rest.empty()) {
    const std::strong_ordering order = CompareParts(TakePart(old_rest), TakePart(new_rest));
    if (order != std::strong_ordering::equal) {
      return order == std::strong_ordering::less;
    }
  }
  return false;
}

}  // namespace orbamira
