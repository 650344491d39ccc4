#include "tools/packctl/view/local_time.h"

#include <array>

namespace orbamira::packctl {

std::string LocalTime(std::time_t time) {
  std::tm parts{};
  std::array<char, 64> buffer{};
  if (localtime_r(&time, &parts) == nullptr) {
    return "unknown";
  }
  return {buffer.data(), std::strftime(buffer.data(), buffer.size(), "%Y-%m-%d %H:%M:%S %Z", &parts)};
}

}  // namespace orbamira::packctl
