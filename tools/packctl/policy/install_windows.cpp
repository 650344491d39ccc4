#include "tools/packctl/policy/install_windows.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace orbamira::packctl {
namespace {

constexpr int kHour = 60;
constexpr int kDay = 24 * kHour;

// Two digits, from the beginning of the text.
std::optional<int> TakeTwoDigits(std::string_view& text) {
  constexpr std::size_t kDigits = 2;
  int number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + std::min(kDigits, text.size()), number);
  if (error != std::errc() || stop != text.data() + kDigits || number < 0) {
    return std::nullopt;
  }
  text.remove_prefix(kDigits);
  return number;
}

// "HH:MM", up to 24:00.
std::optional<int> ParseTimeOfDay(std::string_view text) {
  const std::optional<int> hour = TakeTwoDigits(text);
  if (!hour || !text.starts_with(':')) {
    return std::nullopt;
  }
  text.remove_prefix(1);
  const std::optional<int> minute = TakeTwoDigits(text);
  if (!minute || !text.empty() || *minute >= kHour || *hour * kHour + *minute > kDay) {
    return std::nullopt;
  }
  return *hour * kHour + *minute;
}

std::optional<TimeWindow> ParseTimeWindow(std::string_view text) {
  const std::size_t hyphen = text.find('-');
  if (hyphen == std::string_view::npos) {
    return std::nullopt;
  }
  const std::optional<int> begin = ParseTimeOfDay(text.substr(0, hyphen));
  const std::optional<int> end = ParseTimeOfDay(text.substr(hyphen + 1));
  if (!begin || !end || *begin == kDay || *begin == *end) {
    return std::nullopt;
  }
  return TimeWindow{*begin, *end};
}

bool Contains(const TimeWindow& window, int minute) {
  return window.begin < window.end ? window.begin <= minute && minute < window.end
                                   : window.begin <= minute || minute < window.end;
}

// A time of day, so many days after the date. What the clocks skip becomes a time beside it.
std::time_t TimeAt(std::tm date, int days, int minute) {
  std::tm parts{};
  parts.tm_year = date.tm_year;
  parts.tm_mon = date.tm_mon;
  parts.tm_mday = date.tm_mday + days;
  parts.tm_min = minute;
  parts.tm_isdst = -1;
  return std::mktime(&parts);
}

}  // namespace

std::optional<std::vector<TimeWindow>> ParseTimeWindows(const std::string& text) {
  constexpr std::string_view kSeparators = ", \t";
  std::vector<TimeWindow> windows;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view word = rest.substr(0, rest.find_first_of(kSeparators));
    rest.remove_prefix(std::min(word.size() + 1, rest.size()));
    if (word.empty()) {
      continue;
    }
    const std::optional<TimeWindow> window = ParseTimeWindow(word);
    if (!window) {
      return std::nullopt;
    }
    windows.push_back(*window);
  }
  return windows.empty() ? std::nullopt : std::optional(windows);
}

bool IsInside(const std::vector<TimeWindow>& windows, std::time_t time) {
  std::tm parts{};
  if (windows.empty() || localtime_r(&time, &parts) == nullptr) {
    return true;
  }
  const int minute = parts.tm_hour * kHour + parts.tm_min;
  return std::ranges::any_of(windows, [&](const TimeWindow& window) { return Contains(window, minute); });
}

std::optional<std::time_t> NextBegin(const std::vector<TimeWindow>& windows, std::time_t time) {
  constexpr int kDays = 7;
  std::tm today{};
  if (localtime_r(&time, &today) == nullptr) {
    return std::nullopt;
  }
  std::optional<std::time_t> next;
  for (int day = 0; day <= kDays && !next; ++day) {
    for (const TimeWindow& window : windows) {
      const std::time_t begin = TimeAt(today, day, window.begin);
      if (begin > time && IsInside({window}, begin) && begin < next.value_or(begin + 1)) {
        next = begin;
      }
    }
  }
  return next;
}

}  // namespace orbamira::packctl
