#pragma once

#include <chrono>
#include <optional>
#include <string>

/// How long the maker looks after this appliance.
namespace orbamira::packctl {

/// Key of the last day of support, in the settings files.
inline constexpr const char* kSupportUntil = "support_until";

/// The day that the text names as YYYY-MM-DD; empty for any other text and for a day that no calendar has.
std::optional<std::chrono::sys_days> ParseDay(const std::string& text);

/// The day as YYYY-MM-DD.
std::string DayText(std::chrono::sys_days day);

/// The last day of support, as the settings set it; empty when they set none, or no day.
std::optional<std::chrono::sys_days> ReadSupportEnd();

/// Whether the day has passed, in UTC.
bool HasPassed(std::chrono::sys_days day);

}  // namespace orbamira::packctl
