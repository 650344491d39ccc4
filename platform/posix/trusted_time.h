#pragma once

#include <algorithm>
#include <ctime>
#include <string>

namespace orbamira {

/// What time it is, on a machine whose clock may stand at 1970 after a power cut. Not installed.
struct TrustedTime {
  std::time_t clock = 0;  ///< what the clock says
  std::time_t floor = 0;  ///< before which it cannot be

  /// The time to judge by.
  [[nodiscard]] std::time_t now() const { return std::max(clock, floor); }

  /// Whether the clock is known to be wrong.
  [[nodiscard]] bool IsClockBehind() const { return clock < floor; }
};

/// The clock's time, which cannot be before this updater was built nor before `proven`, a time that has been.
TrustedTime ReadTrustedTime(std::time_t proven);

/// The day in UTC, "2026-11-22".
std::string DayText(std::time_t time);

}  // namespace orbamira
