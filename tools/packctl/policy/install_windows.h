#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

/// The times of day at which an install may begin by itself.
namespace orbamira::packctl {

/// From one minute of the day to another, by the clock on the wall. One that ends before it begins goes across
/// midnight.
struct TimeWindow {
  int begin = 0;  ///< minutes since midnight; the first inside
  int end = 0;    ///< minutes since midnight, up to 24 * 60; the first that is not inside any more

  friend bool operator==(const TimeWindow&, const TimeWindow&) = default;
};

/// Reads "02:00-05:00", or several with commas or blanks between. Empty when the text is anything else.
std::optional<std::vector<TimeWindow>> ParseTimeWindows(const std::string& text);

/// Whether the time is in one of the windows, by this machine's time zone. Without windows every time is. An hour that
/// the change of the clocks repeats is inside both times; one that it skips is not there.
bool IsInside(const std::vector<TimeWindow>& windows, std::time_t time);

/// When the next window begins after `time`; empty when none does within a week.
std::optional<std::time_t> NextBegin(const std::vector<TimeWindow>& windows, std::time_t time);

}  // namespace orbamira::packctl
