#include "tools/orba-plugins/time_limit.h"

#include <syslog.h>

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/constants.h"
#include "platform/settings_file.h"

namespace orbamira::plugins {
namespace {

constexpr const char* kKey = "plugin_time_limit";
constexpr double kDefault = 60;
constexpr double kDay = 24 * 60 * 60;

/// 0 for a text that is no number of seconds up to a day.
double Seconds(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  double seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  return error == std::errc() && stop == end && seconds > 0 && seconds <= kDay ? seconds : 0;
}

}  // namespace

double TimeLimit() {
  for (const char* const file : {path::kPkgSetting, path::kDefaultPkgSetting}) {
    const std::string text = ReadSetting(file, kKey);
    if (text.empty()) {
      continue;
    }
    if (const double seconds = Seconds(text); seconds > 0) {
      return seconds;
    }
    syslog(LOG_LOCAL1 | LOG_ERR, "%s: %s is not a number of seconds up to a day", file, kKey);
    return kDefault;
  }
  return kDefault;
}

}  // namespace orbamira::plugins
