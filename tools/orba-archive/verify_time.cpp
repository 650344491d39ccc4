// Compiled with the size of a time that the system's OpenSSL was compiled with; see cmake/WideTypes.cmake.
#include "tools/orba-archive/verify_time.h"

#include <algorithm>
#include <ctime>
#include <limits>

namespace orbamira::tools {

void SetVerifyTime(X509_VERIFY_PARAM* rules, std::int64_t seconds) {
  using Limits = std::numeric_limits<std::time_t>;
  const std::int64_t nearest = std::clamp<std::int64_t>(seconds, Limits::min(), Limits::max());
  X509_VERIFY_PARAM_set_time(rules, static_cast<std::time_t>(nearest));
}

}  // namespace orbamira::tools
