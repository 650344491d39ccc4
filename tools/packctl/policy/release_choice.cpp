#include "tools/packctl/policy/release_choice.h"

#include <algorithm>
#include <iterator>

#include "platform/constants.h"
#include "platform/json/json_object.h"
#include "platform/orba_core_wrapper.h"
#include "platform/version.h"
#include "tools/packctl/policy/share.h"
#include "updater/kos_helper.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kStaged = "staged";
constexpr const char* kRollout = "rollout";
constexpr const char* kWithdrawn = "withdrawn";
constexpr double kEveryone = 100;

bool IsRelease(const Json::Value& entry) {
  return entry.isObject() && !TextOf(entry[param::kVersion]).empty() && !TextOf(entry[param::kLink]).empty() &&
         !TextOf(entry[param::kChecksum]).empty() && (!entry.isMember(kRollout) || entry[kRollout].isNumeric()) &&
         (!entry.isMember(kChannel) || entry[kChannel].isString());
}

}  // namespace

Audience ReadAudience() {
  wrapper::OrbaCoreWrapper core;
  Audience audience{.unique = updater::KOSHelper::Create()->GetUnique()};
  for (const char* const file : {path::kPkgSetting, path::kDefaultPkgSetting}) {
    if (audience.channel.empty()) {
      audience.channel = core.GetKeyValue(file, kChannel);
    }
  }
  return audience;
}

bool HasOtherReleases(const Json::Value& pack) {
  return pack.isObject() && (pack[kStaged].isArray() || pack[kWithdrawn].isArray());
}

ReleaseChoice ChooseRelease(const Json::Value& pack, const Audience& audience) {
  ReleaseChoice choice{.offer = pack};
  choice.offer.removeMember(kStaged);
  std::string newest = TextOf(pack[param::kVersion]);
  StagedRelease others{.version = newest};
  const Json::Value& staged = pack[kStaged];
  for (const Json::Value& entry : staged.isArray() ? staged : Json::Value(Json::arrayValue)) {
    if (!IsRelease(entry) || (entry.isMember(kChannel) && entry[kChannel].asString() != audience.channel)) {
      continue;
    }
    const std::string version = entry[param::kVersion].asString();
    const double percent = entry.isMember(kRollout) ? entry[kRollout].asDouble() : kEveryone;
    if (audience.takes_all || IsInShare(audience.unique, version, percent)) {
      if (IsNewVersion(newest, version)) {
        newest = version;
        choice.offer = entry;
      }
    } else if (IsNewVersion(others.version, version)) {
      others = {.version = version, .percent = percent};
    }
  }
  if (IsNewVersion(newest, others.version)) {
    choice.left_out = others;
  }
  return choice;
}

std::set<std::string> WithdrawnVersions(const Json::Value& pack) {
  const Json::Value& versions = HasOtherReleases(pack) ? pack[kWithdrawn] : Json::Value::nullSingleton();
  std::set<std::string> texts;
  if (versions.isArray()) {
    std::transform(versions.begin(), versions.end(), std::inserter(texts, texts.end()), TextOf);
  }
  texts.erase("");
  return texts;
}

}  // namespace orbamira::packctl
