#include "platform/constants.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "tests/support/test_root.h"

namespace orbamira {
namespace {

struct Place {
  const char* value;
  const char* fixed_path;
};

const std::vector<Place>& Places() {
  static const std::vector<Place> places = {
      {kDownloadFolder, "/var/cache/orbamira/download"},
      {kTargetFolder, "/var/lib/orbamira/packages"},
      {kPackageInfoPath, "/usr/share/orbamira/INFO"},
      {path::kNotifyPluginPyPath, "/usr/libexec/orbamira/notify-plugins"},
      {path::kGetAppIdPyPath, "/usr/libexec/orbamira/list-app-ids"},
      {path::kPluginFolder, "/usr/lib/orbamira/plugins"},
      {path::kTempPluginAppIdPath, "/run/orbamira/plugin-app-ids.json"},
      {path::kTarPath, "/usr/libexec/orbamira/orba-tar"},
      {path::kCpPath, "/usr/libexec/orbamira/orba-copy"},
      {path::kRmPath, "/usr/libexec/orbamira/orba-remove"},
      {path::kOrbaArchivePath, "/usr/libexec/orbamira/orba-archive"},
      {path::kTempPackFolderPath, "/var/lib/orbamira/packages/.codec-pack.unpacked"},
      {path::kPackFolderPath, "/var/lib/orbamira/packages/codec-pack"},
      {path::kBackupPackFolderPath, "/var/lib/orbamira/packages/.codec-pack.backup"},
      {path::kPackInfoPath, "/var/lib/orbamira/packages/codec-pack/INFO"},
      {path::kHasAacPath, "/var/lib/orbamira/packages/codec-pack/has_aac"},
      {path::kHasHevcPath, "/var/lib/orbamira/packages/codec-pack/has_hevc"},
      {path::kDownloadedOpkPath, "/var/cache/orbamira/download/codec-pack.opk"},
      {path::kPackStatusFile, "/var/lib/orbamira/status.json"},
      {path::kPackStatusLock, "/run/orbamira/lock/status.lock"},
      {path::kHistoryFile, "/var/lib/orbamira/history.jsonl"},
      {path::kCodecRequirementsPath, "/var/lib/orbamira/codec-requirements.json"},
      {path::kCodecRequirementsLock, "/run/orbamira/lock/codec-requirements.lock"},
      {path::kPkgSetting, "/etc/orbamira/updater.conf"},
      {path::kDefaultPkgSetting, "/usr/share/orbamira/updater.conf"},
      {path::kKeyring, "/etc/orbamira/keyring.pem"},
      {path::kPackctlLock, "/run/orbamira/lock/packctl.lock"},
      {path::kAccountFile, "/etc/orbamira/account.json"},
      {path::kAccountLock, "/run/orbamira/lock/account.lock"},
      {path::kLocaltime, "/etc/localtime"},
      {common::kDefaultOrbaInfoPath, "/etc/orbamira/system.conf"},
      {common::kDefaultVersionPath, "/etc/orbamira/version.conf"},
  };
  return places;
}

TEST(ConstantsTest, EveryPathStandsInItsPlaceUnderTheRoot) {
  for (const Place& place : Places()) {
    EXPECT_EQ(place.value, test::Root().string() + place.fixed_path);
  }
}

TEST(ConstantsTest, ThePathsAreAllDifferent) {
  std::set<std::string> paths;
  for (const Place& place : Places()) {
    EXPECT_TRUE(paths.insert(place.value).second) << place.value;
  }
}

TEST(ConstantsTest, WhatIsRenamedIntoOneAnotherStandsInOneFolder) {
  namespace fs = std::filesystem;
  const fs::path pack = path::kPackFolderPath;
  EXPECT_EQ(pack, fs::path(kTargetFolder) / kPackFolderName);
  EXPECT_EQ(fs::path(path::kTempPackFolderPath).parent_path(), pack.parent_path());
  EXPECT_EQ(fs::path(path::kBackupPackFolderPath).parent_path(), pack.parent_path());
  EXPECT_EQ(fs::path(path::kDownloadedOpkPath).parent_path(), kDownloadFolder);
  EXPECT_EQ(fs::path(path::kPackInfoPath).parent_path(), pack);
}

TEST(ConstantsTest, TheKeysOfTheStatusStoreAreThoseOfTheWebInterface) {
  EXPECT_STREQ(webapi::param::kStatus, "status");
  EXPECT_STREQ(webapi::param::kNewPackName, "new_pack_name");
  EXPECT_STREQ(webapi::param::kNewVersion, "new_version");
  EXPECT_STREQ(webapi::param::kDownloadSizeNow, "download_size_now");
  EXPECT_STREQ(webapi::param::kDownloadSizeTotal, "download_size_total");
  EXPECT_STREQ(webapi::param::kInstallStep, "install_step");
}

}  // namespace
}  // namespace orbamira
