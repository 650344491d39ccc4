#include "tools/packctl/policy/offer.h"

#include <sys/stat.h>

#include "platform/constants.h"
#include "platform/json/json_object.h"

namespace orbamira::packctl {

Offer ReadOffer(const Json::Value& info) {
  constexpr std::size_t kLongestDigest = 128;
  if (!info.isObject()) {
    return {};
  }
  const Json::Value& security = info["security"];
  return {.version = TextOf(info[param::kVersion]),
          .link = TextOf(info[param::kLink]),
          .checksum = TextOf(info[param::kChecksum]).substr(0, kLongestDigest),
          .security = security.isBool() && security.asBool()};
}

bool HaveSamePackage(const Offer& left, const Offer& right) {
  return left.version == right.version && left.link == right.link && left.checksum == right.checksum;
}

std::string JudgementBasis() {
  std::string basis;
  for (const char* const file : {path::kOrbaArchivePath, path::kKeyring, path::kPkgSetting, path::kDefaultPkgSetting}) {
    struct stat about {};
    const bool exists = stat(file, &about) == 0;
    basis += ' ';
    basis += exists ? std::to_string(about.st_size) + "/" + std::to_string(about.st_mtim.tv_sec) + "." +
                          std::to_string(about.st_mtim.tv_nsec)
                    : "-";
  }
  return basis;
}

}  // namespace orbamira::packctl
