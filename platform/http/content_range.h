#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace orbamira {

/// A Content-Range header: the first and the last byte of the part, and the size of the whole if it is known.
struct ContentRange {
  std::int64_t first = 0;
  std::int64_t last = 0;
  std::optional<std::int64_t> size = {};
};

/// Reads "bytes FIRST-LAST/SIZE", where SIZE may be "*". Empty for any other text, and for a range that ends before it
/// begins or beyond the whole.
[[nodiscard]] std::optional<ContentRange> ParseContentRange(std::string_view text);

}  // namespace orbamira
