#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

// A number for an interface whose type is long, which has 32 bits on some processors. Not installed.
namespace orbamira {

/// The number itself, or the nearest that a long can hold.
inline long AsLong(std::int64_t number) {
  using Limits = std::numeric_limits<long>;
  return static_cast<long>(std::clamp<std::int64_t>(number, Limits::min(), Limits::max()));
}

}  // namespace orbamira
