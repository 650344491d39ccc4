#include "platform/orba_zelo_wrapper.h"

#include <filesystem>
#include <string_view>
#include <system_error>

#include "platform/constants.h"
#include "platform/orbazelo.h"

namespace orbamira::wrapper {

std::string OrbaZeloWrapper::GetTimezone() const {
  std::error_code error;
  const std::string target = std::filesystem::read_symlink(path::kLocaltime, error).string();
  constexpr std::string_view kZones = "zoneinfo/";
  const std::size_t zones = target.find(kZones);
  if (error || zones == std::string::npos) {
    return "";
  }
  std::string_view zone = std::string_view(target).substr(zones + kZones.size());
  // These folders have the same zones, with and without leap seconds.
  for (const std::string_view variant : {"posix/", "right/"}) {
    if (zone.starts_with(variant)) {
      zone.remove_prefix(variant.size());
      break;
    }
  }
  return std::string(zone);
}

std::string OrbaZeloWrapper::GetUserId() const {
  try {
    return orbazelo::User().GetId();
  } catch (const orbazelo::ZeloException&) {
    return "";
  }
}

}  // namespace orbamira::wrapper
