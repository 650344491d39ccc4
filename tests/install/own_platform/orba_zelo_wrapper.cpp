#include "platform/orba_zelo_wrapper.h"

#include "platform/constants.h"
#include "platform/settings_file.h"

// On this appliance the owner is one more setting of the system.
namespace orbamira::wrapper {

std::string OrbaZeloWrapper::GetTimezone() const { return ReadSetting(common::kDefaultOrbaInfoPath, "timezone"); }

std::string OrbaZeloWrapper::GetUserId() const { return ReadSetting(common::kDefaultOrbaInfoPath, "owner"); }

}  // namespace orbamira::wrapper
