#include "tools/packctl/record/installed_pack.h"

#include "platform/constants.h"
#include "updater/kos_helper.h"

namespace orbamira::packctl {

std::optional<InstalledPack> ReadInstalledPack() {
  const auto facts = updater::KOSHelper::Create();
  if (!facts->FileExist(path::kPackInfoPath)) {
    return std::nullopt;
  }
  return InstalledPack{
      {facts->GetPackageNameFromPath(path::kPackInfoPath), facts->GetVersionFromPath(path::kPackInfoPath)},
      facts->FileMtime(path::kPackInfoPath)};
}

std::string InstalledVersion() {
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  return pack ? pack->identity.version : "";
}

}  // namespace orbamira::packctl
