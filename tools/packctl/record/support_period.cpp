#include "tools/packctl/record/support_period.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "platform/constants.h"
#include "platform/orba_core_wrapper.h"

namespace orbamira::packctl {
namespace {

// The number that the whole text is, digits alone; 0 for any other text.
unsigned NumberOf(std::string_view text) {
  unsigned number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end ? number : 0;
}

}  // namespace

std::optional<std::chrono::sys_days> ParseDay(const std::string& text) {
  if (text.size() != 10 || text[4] != '-' || text[7] != '-') {
    return std::nullopt;
  }
  const std::string_view parts = text;
  const unsigned year = NumberOf(parts.substr(0, 4));
  const std::chrono::year_month_day day(std::chrono::year(static_cast<int>(year)),
                                        std::chrono::month(NumberOf(parts.substr(5, 2))),
                                        std::chrono::day(NumberOf(parts.substr(8, 2))));
  return year != 0 && day.ok() ? std::optional(std::chrono::sys_days(day)) : std::nullopt;
}

std::string DayText(std::chrono::sys_days day) {
  const std::chrono::year_month_day parts(day);
  std::array<char, 32> text{};
  static_cast<void>(std::snprintf(text.data(), text.size(), "%04d-%02u-%02u", static_cast<int>(parts.year()),
                                  static_cast<unsigned>(parts.month()), static_cast<unsigned>(parts.day())));
  return text.data();
}

std::optional<std::chrono::sys_days> ReadSupportEnd() {
  wrapper::OrbaCoreWrapper core;
  for (const char* const file : {path::kPkgSetting, path::kDefaultPkgSetting}) {
    if (const std::string text = core.GetKeyValue(file, kSupportUntil); !text.empty()) {
      return ParseDay(text);
    }
  }
  return std::nullopt;
}

bool HasPassed(std::chrono::sys_days day) {
  const std::chrono::sys_seconds now{std::chrono::seconds(std::time(nullptr))};
  return std::chrono::floor<std::chrono::days>(now) > day;
}

}  // namespace orbamira::packctl
