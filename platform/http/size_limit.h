#pragma once

#include <cstdint>
#include <string>

namespace orbamira {

/// How large a body may be.
struct SizeLimit {
  std::int64_t bytes = 0;
  std::string source;  ///< what sets it, for the reason of a failure
};

/// The download_limit that the machine's settings, or else the maker's, have; 16 GiB without one. Throws
/// std::system_error for one that is no number of bytes.
[[nodiscard]] SizeLimit SizeLimitFromSettings();

/// Throws std::system_error when a body of this many bytes is over the limit.
void ExpectWithin(const SizeLimit& limit, std::int64_t size);

}  // namespace orbamira
