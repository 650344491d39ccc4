#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace orbamira {

/// What a Content-Range says: the first and the last byte of a part, and the size of the whole where that is known.
struct ContentRange {
  std::int64_t first = 0;
  std::int64_t last = 0;
  std::optional<std::int64_t> size = {};
};

/// Reads "bytes FIRST-LAST/SIZE", where the size may be "*". Empty for any other text, and for a range that ends before
/// it begins or behind the end.
[[nodiscard]] std::optional<ContentRange> ParseContentRange(std::string_view text);

}  // namespace orbamira
