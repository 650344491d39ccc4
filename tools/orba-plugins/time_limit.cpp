#include "tools/orba-plugins/time_limit.h"

#include <syslog.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/settings_file.h"

namespace orbamira::plugins {
namespace {

constexpr double kDefault = 60;
constexpr double kDay = 24 * 60 * 60;

/// The number of seconds, up to a day; 0 for any other text.
double Seconds(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  double seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  return error == std::errc() && stop == end && seconds > 0 && seconds <= kDay ? seconds : 0;
}

}  // namespace

double TimeLimit(const char* key) {
  const std::optional<Setting> setting = ReadOwnOrMakersSetting(key);
  if (!setting) {
    return kDefault;
  }
  if (const double seconds = Seconds(setting->value); seconds > 0) {
    return seconds;
  }
  syslog(LOG_LOCAL1 | LOG_ERR, "%s: %s is not a number of seconds up to a day", setting->file.c_str(), key);
  return kDefault;
}

}  // namespace orbamira::plugins
