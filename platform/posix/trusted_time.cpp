#include "platform/posix/trusted_time.h"

#include <array>

namespace orbamira {

TrustedTime ReadTrustedTime(std::time_t proven) {
  constexpr std::time_t kBuilt = ORBAMIRA_BUILD_TIME;
  return {.clock = std::time(nullptr), .floor = std::max(kBuilt, proven)};
}

std::string DayText(std::time_t time) {
  std::tm parts = {};
  std::array<char, 32> text = {};
  if (gmtime_r(&time, &parts) == nullptr) {
    return std::to_string(time);
  }
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts)};
}

}  // namespace orbamira
