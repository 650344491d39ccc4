#include "tools/packctl/commands/checking_pack_handler.h"

namespace orbamira::packctl {

bool CheckingPackHandler::CheckNewVersion(const Json::Value& info) const {
  const bool newer = PackHandler::CheckNewVersion(info);
  const std::string offered = GetDownloadVersion(info);
  // An offer that names no version is a broken reply, not an old pack.
  if (!newer && !offered.empty()) {
    declined_version_ = offered;
  }
  return newer;
}

}  // namespace orbamira::packctl
