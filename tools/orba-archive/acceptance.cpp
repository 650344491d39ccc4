#include "tools/orba-archive/acceptance.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "platform/accepted_packages.h"
#include "platform/constants.h"
#include "platform/settings_file.h"
#include "platform/settings_line.h"
#include "platform/version.h"
#include "tools/orba-archive/signature.h"

namespace orbamira::tools {
namespace {

const std::string& Newer(const std::string& one, const std::string& other) {
  return IsNewVersion(one, other) ? other : one;
}

std::string InstalledVersion() {
  const auto version_in = [](const char* folder) {
    return ReadSetting(std::string(folder) + "/" + kInfoName, param::kVersion);
  };
  return Newer(version_in(path::kPackFolderPath), version_in(path::kBackupPackFolderPath));
}

unsigned LeastFormat() {
  const std::optional<Setting> setting = ReadOwnOrMakersSetting(common::kMinimumManifestFormat);
  if (!setting) {
    return 1;
  }
  if (setting->value != "1" && setting->value != "2") {
    throw std::runtime_error(setting->file + ": " + common::kMinimumManifestFormat +
                             " is neither 1 nor 2: " + setting->value);
  }
  return setting->value == "2" ? 2 : 1;
}

void CheckMembers(const Digests& members, const Digests& listed) {
  for (const auto& [name, digest] : members) {
    const auto entry = listed.find(name);
    if (entry == listed.end()) {
      throw std::runtime_error(name + ": not in MANIFEST");
    }
    if (entry->second != digest) {
      throw std::runtime_error(name + ": does not match MANIFEST");
    }
  }
  for (const auto& [name, digest] : listed) {
    if (!members.contains(name)) {
      throw std::runtime_error(name + ": in MANIFEST, but not in the package");
    }
  }
}

/// The value of the key, as the installed pack's INFO will be read.
std::string InfoValue(std::string_view info, std::string_view key) {
  while (!info.empty()) {
    const size_t end = std::min(info.find('\n'), info.size());
    if (const auto line = ParseSettingLine(info.substr(0, end)); line && line->key == key) {
      return std::string(line->value);
    }
    info.remove_prefix(std::min(end + 1, info.size()));
  }
  return "";
}

void CheckInfo(const std::string& info, const char* key, const std::string& signed_value) {
  if (const std::string value = InfoValue(info, key); value != signed_value) {
    throw std::runtime_error(std::string("INFO: not what MANIFEST says: its ") + key + " is \"" + value + "\", not " +
                             signed_value);
  }
}

/// Takes what the package is from INFO, or compares it with INFO.
void Identify(const std::string& info, Manifest& manifest) {
  if (manifest.format == 1) {
    manifest.pack = InfoValue(info, param::kPackage);
    manifest.version = InfoValue(info, param::kVersion);
    return;
  }
  CheckInfo(info, param::kPackage, manifest.pack);
  CheckInfo(info, param::kVersion, manifest.version);
  if (manifest.product != kPackageId) {
    throw std::runtime_error("made for the product " + manifest.product + ", and this is " + kPackageId);
  }
}

void CheckDay(const std::chrono::sys_days& last, const TrustedTime& time) {
  // Not by the system's clock, whose range ends in 2262.
  const std::chrono::sys_days today(std::chrono::floor<std::chrono::days>(std::chrono::seconds(time.now())));
  if (today > last) {
    throw std::runtime_error("was to be installed until " +
                             DayText(std::chrono::seconds(last.time_since_epoch()).count()) + ", and today is " +
                             DayText(time.now()));
  }
}

void CheckVersion(const std::string& version, const Demands& demands) {
  if (IsNewVersion(version, demands.installed)) {
    throw std::runtime_error("its version " + version + " is older than the installed " + demands.installed);
  }
  if (IsNewVersion(version, demands.minimum)) {
    throw std::runtime_error("its version " + version + " is older than the minimum " + demands.minimum);
  }
}

void CheckOffer(const Manifest& manifest, const OfferedPack& offer) {
  const bool is_same_version =
      !IsNewVersion(manifest.version, offer.version) && !IsNewVersion(offer.version, manifest.version);
  if (!is_same_version || (!manifest.pack.empty() && manifest.pack != offer.name)) {
    const std::string pack = manifest.pack.empty() ? "a pack of no name" : manifest.pack;
    const std::string version = manifest.version.empty() ? "without a version" : manifest.version;
    throw std::runtime_error("not the pack on offer: it has " + pack + " " + version + ", and " + offer.name + " " +
                             offer.version + " is on offer");
  }
}

}  // namespace

Demands ReadDemands(const std::string& keyring, const std::optional<OfferedPack>& offer) {
  const AcceptedPackages accepted = ReadAcceptedPackages();
  const char* allow_older = secure_getenv("ORBAMIRA_ALLOW_OLDER");
  return {.keyring = keyring,
          .least_format = LeastFormat(),
          .installed = InstalledVersion(),
          .minimum = accepted.minimum,
          .time = ReadTrustedTime(accepted.newest_signature),
          .offer = offer,
          .accepts_older = allow_older != nullptr && std::string_view(allow_older) == "1"};
}

Accepted Judge(const PackageContents& package, const Demands& demands) {
  if (!package.manifest || !package.signature) {
    throw std::runtime_error("not signed");
  }
  const std::time_t signed_at = CheckSignature(*package.manifest, *package.signature, demands.keyring, demands.time);
  Manifest manifest = ParseManifest(*package.manifest);
  if (manifest.format < demands.least_format) {
    throw std::runtime_error("MANIFEST: of format " + std::to_string(manifest.format) + ", and the settings demand " +
                             std::to_string(demands.least_format));
  }
  CheckMembers(package.digests, manifest.digests);
  Identify(package.info, manifest);
  if (!demands.accepts_older) {
    if (manifest.expires) {
      CheckDay(*manifest.expires, demands.time);
    }
    CheckVersion(manifest.version, demands);
  }
  if (demands.offer) {
    CheckOffer(manifest, *demands.offer);
  }
  return {.minimum = manifest.minimum, .signed_at = signed_at};
}

void Remember(const Accepted& accepted) {
  const AcceptedPackages before = ReadAcceptedPackages();
  const AcceptedPackages now = {.minimum = Newer(before.minimum, accepted.minimum),
                                .newest_signature = std::max(before.newest_signature, accepted.signed_at)};
  if (now != before) {
    SaveAcceptedPackages(now);
  }
}

}  // namespace orbamira::tools
