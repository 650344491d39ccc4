#pragma once

#include <cstdint>
#include <string>

namespace orbamira {

/// The largest body that a download accepts.
struct SizeLimit {
  std::int64_t bytes = 0;
  std::string source;  ///< what sets the limit, for the error message
};

/// The download_limit from the machine's settings, or else from the maker's; 16 GiB when neither has one. Throws
/// std::system_error when it is no number of bytes.
[[nodiscard]] SizeLimit SizeLimitFromSettings();

/// Throws std::system_error when a body of `size` bytes is over the limit.
void ExpectWithin(const SizeLimit& limit, std::int64_t size);

}  // namespace orbamira
