#include "platform/constants.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "platform/paths.h"
#include "tests/support/test_root.h"

namespace orbamira {
namespace {

struct Place {
  const char* value;
  const char* path;
};

const std::vector<Place>& Places() {
  static const std::vector<Place> places = {
      {kDownloadFolder, ORBAMIRA_CACHE_FOLDER "/download"},
      {kTargetFolder, ORBAMIRA_PACKS_FOLDER},
      {kPackageInfoPath, ORBAMIRA_DATA_FOLDER "/INFO"},
      {path::kNotifyPluginPyPath, ORBAMIRA_HELPERS_FOLDER "/notify-plugins"},
      {path::kGetAppIdPyPath, ORBAMIRA_HELPERS_FOLDER "/list-app-ids"},
      {path::kHealthProgramPath, ORBAMIRA_HELPERS_FOLDER "/check-health"},
      {path::kHealthFolder, ORBAMIRA_HEALTH_FOLDER},
      {path::kPluginFolder, ORBAMIRA_PLUGINS_FOLDER},
      {path::kTempPluginAppIdPath, ORBAMIRA_RUN_FOLDER "/plugin-app-ids.json"},
      {path::kTarPath, ORBAMIRA_HELPERS_FOLDER "/orba-tar"},
      {path::kCpPath, ORBAMIRA_HELPERS_FOLDER "/orba-copy"},
      {path::kRmPath, ORBAMIRA_HELPERS_FOLDER "/orba-remove"},
      {path::kOrbaArchivePath, ORBAMIRA_HELPERS_FOLDER "/orba-archive"},
      {path::kTempPackFolderPath, ORBAMIRA_PACKS_FOLDER "/." ORBAMIRA_PACK_FOLDER_NAME ".unpacked"},
      {path::kPackFolderPath, ORBAMIRA_PACKS_FOLDER "/" ORBAMIRA_PACK_FOLDER_NAME},
      {path::kBackupPackFolderPath, ORBAMIRA_PACKS_FOLDER "/." ORBAMIRA_PACK_FOLDER_NAME ".backup"},
      {path::kPreviousPackFolderPath, ORBAMIRA_PACKS_FOLDER "/." ORBAMIRA_PACK_FOLDER_NAME ".previous"},
      {path::kPackInfoPath, ORBAMIRA_PACKS_FOLDER "/" ORBAMIRA_PACK_FOLDER_NAME "/INFO"},
      {path::kHasAacPath, ORBAMIRA_PACKS_FOLDER "/" ORBAMIRA_PACK_FOLDER_NAME "/has_aac"},
      {path::kHasHevcPath, ORBAMIRA_PACKS_FOLDER "/" ORBAMIRA_PACK_FOLDER_NAME "/has_hevc"},
      {path::kDownloadedOpkPath, ORBAMIRA_CACHE_FOLDER "/download/" ORBAMIRA_PACK_FOLDER_NAME ".opk"},
      {path::kPackStatusFile, ORBAMIRA_STATE_FOLDER "/status.json"},
      {path::kPackStatusLock, ORBAMIRA_RUN_FOLDER "/lock/status.lock"},
      {path::kHealthFile, ORBAMIRA_STATE_FOLDER "/health.json"},
      {path::kHealthyPackFile, ORBAMIRA_STATE_FOLDER "/healthy-pack"},
      {path::kHistoryFile, ORBAMIRA_STATE_FOLDER "/history.jsonl"},
      {path::kCodecRequirementsPath, ORBAMIRA_STATE_FOLDER "/codec-requirements.json"},
      {path::kCodecRequirementsLock, ORBAMIRA_RUN_FOLDER "/lock/codec-requirements.lock"},
      {path::kPkgSetting, ORBAMIRA_SETTINGS_FOLDER "/updater.conf"},
      {path::kDefaultPkgSetting, ORBAMIRA_DATA_FOLDER "/updater.conf"},
      {path::kKeyring, ORBAMIRA_SETTINGS_FOLDER "/keyring.pem"},
      {path::kPackctlLock, ORBAMIRA_RUN_FOLDER "/lock/packctl.lock"},
      {path::kAccountFile, ORBAMIRA_SETTINGS_FOLDER "/account.json"},
      {path::kAccountLock, ORBAMIRA_RUN_FOLDER "/lock/account.lock"},
      {path::kLocaltime, "/etc/localtime"},
      {common::kDefaultOrbaInfoPath, ORBAMIRA_SYSTEM_FILE},
      {common::kDefaultVersionPath, ORBAMIRA_VERSION_FILE},
  };
  return places;
}

TEST(ConstantsTest, EveryPathStandsInItsPlaceUnderTheRoot) {
  for (const Place& place : Places()) {
    EXPECT_EQ(place.value, test::Root().string() + place.path);
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
  EXPECT_EQ(fs::path(path::kPreviousPackFolderPath).parent_path(), pack.parent_path());
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
