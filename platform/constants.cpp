#include "platform/constants.h"

#include <cstdlib>
#include <forward_list>
#include <string>

#include "platform/paths.h"

namespace orbamira {
namespace {

const std::string& RootPrefix() {
  static const std::string prefix = [] {
    const char* root = secure_getenv("ORBAMIRA_ROOT");
    return std::string(root != nullptr ? root : "");
  }();
  return prefix;
}

// Built before every user of the library, so destroyed after all of them.
const char* AtRoot(const char* fixed_path) {
  static std::forward_list<std::string> texts;
  return texts.emplace_front(RootPrefix() + fixed_path).c_str();
}

}  // namespace

const char* const kDownloadFolder = AtRoot(ORBAMIRA_CACHE_FOLDER "/download");
const char* const kTargetFolder = AtRoot(ORBAMIRA_PACKS_FOLDER);
const char* const kPackFolderName = ORBAMIRA_PACK_FOLDER_NAME;
const char* const kPackageInfoPath = AtRoot(ORBAMIRA_DATA_FOLDER "/INFO");
const char* const kPackageId = ORBAMIRA_PACKAGE_ID;
const char* const kPkceClientName = "orbamira-updater";
const char* const kAac = "aac";
const char* const kHevcPack = ORBAMIRA_HEVC_PACK;
const char* const kHevcAacPack = ORBAMIRA_HEVC_AAC_PACK;

namespace path {

const char* const kNotifyPluginPyPath = AtRoot(ORBAMIRA_HELPERS_FOLDER "/notify-plugins");
const char* const kGetAppIdPyPath = AtRoot(ORBAMIRA_HELPERS_FOLDER "/list-app-ids");
const char* const kPluginFolder = AtRoot(ORBAMIRA_PLUGINS_FOLDER);
const char* const kTempPluginAppIdPath = AtRoot(ORBAMIRA_RUN_FOLDER "/plugin-app-ids.json");
const char* const kTarPath = AtRoot(ORBAMIRA_HELPERS_FOLDER "/orba-tar");
const char* const kCpPath = AtRoot(ORBAMIRA_HELPERS_FOLDER "/orba-copy");
const char* const kRmPath = AtRoot(ORBAMIRA_HELPERS_FOLDER "/orba-remove");
const char* const kOrbaArchivePath = AtRoot(ORBAMIRA_HELPERS_FOLDER "/orba-archive");
const char* const kHealthProgramPath = AtRoot(ORBAMIRA_HELPERS_FOLDER "/check-health");
const char* const kHealthFolder = AtRoot(ORBAMIRA_HEALTH_FOLDER);
const char* const kTempPackFolderPath = AtRoot(ORBAMIRA_PACKS_FOLDER "/." ORBAMIRA_PACK_FOLDER_NAME ".unpacked");
const char* const kPackFolderPath = AtRoot(ORBAMIRA_PACKS_FOLDER "/" ORBAMIRA_PACK_FOLDER_NAME);
const char* const kBackupPackFolderPath = AtRoot(ORBAMIRA_PACKS_FOLDER "/." ORBAMIRA_PACK_FOLDER_NAME ".backup");
const char* const kPreviousPackFolderPath = AtRoot(ORBAMIRA_PACKS_FOLDER "/." ORBAMIRA_PACK_FOLDER_NAME ".previous");
const char* const kPackInfoPath = AtRoot(ORBAMIRA_PACKS_FOLDER "/" ORBAMIRA_PACK_FOLDER_NAME "/INFO");
const char* const kHasAacPath = AtRoot(ORBAMIRA_PACKS_FOLDER "/" ORBAMIRA_PACK_FOLDER_NAME "/has_aac");
const char* const kHasHevcPath = AtRoot(ORBAMIRA_PACKS_FOLDER "/" ORBAMIRA_PACK_FOLDER_NAME "/has_hevc");
const char* const kDownloadedOpkPath = AtRoot(ORBAMIRA_CACHE_FOLDER "/download/" ORBAMIRA_PACK_FOLDER_NAME ".opk");
const char* const kPackStatusFile = AtRoot(ORBAMIRA_STATE_FOLDER "/status.json");
const char* const kPackStatusLock = AtRoot(ORBAMIRA_RUN_FOLDER "/lock/status.lock");
const char* const kHealthFile = AtRoot(ORBAMIRA_STATE_FOLDER "/health.json");
const char* const kHealthyPackFile = AtRoot(ORBAMIRA_STATE_FOLDER "/healthy-pack");
const char* const kHistoryFile = AtRoot(ORBAMIRA_STATE_FOLDER "/history.jsonl");
const char* const kOfferFile = AtRoot(ORBAMIRA_STATE_FOLDER "/offer.json");
const char* const kHoldFile = AtRoot(ORBAMIRA_STATE_FOLDER "/hold.json");
const char* const kAcceptedPackagesFile = AtRoot(ORBAMIRA_STATE_FOLDER "/accepted-packages");
const char* const kCodecRequirementsPath = AtRoot(ORBAMIRA_STATE_FOLDER "/codec-requirements.json");
const char* const kCodecRequirementsLock = AtRoot(ORBAMIRA_RUN_FOLDER "/lock/codec-requirements.lock");
const char* const kPkgSetting = AtRoot(ORBAMIRA_SETTINGS_FOLDER "/updater.conf");
const char* const kDefaultPkgSetting = AtRoot(ORBAMIRA_DATA_FOLDER "/updater.conf");
const char* const kKeyring = AtRoot(ORBAMIRA_SETTINGS_FOLDER "/keyring.pem");
const char* const kAccountFile = AtRoot(ORBAMIRA_SETTINGS_FOLDER "/account.json");
const char* const kAccountLock = AtRoot(ORBAMIRA_RUN_FOLDER "/lock/account.lock");
const char* const kPackctlLock = AtRoot(ORBAMIRA_RUN_FOLDER "/lock/packctl.lock");
const char* const kLocaltime = AtRoot("/etc/localtime");

}  // namespace path

namespace common {

const char* const kDefaultOrbaInfoPath = AtRoot(ORBAMIRA_SYSTEM_FILE);
const char* const kDefaultVersionPath = AtRoot(ORBAMIRA_VERSION_FILE);
const char* const kUnique = ORBAMIRA_UNIQUE_KEY;
const char* const kVersion = "version";
const char* const kMajorVersion = ORBAMIRA_MAJOR_VERSION_KEY;
const char* const kMinorVersion = ORBAMIRA_MINOR_VERSION_KEY;
const char* const kBuildNumber = ORBAMIRA_BUILD_NUMBER_KEY;
const char* const kPackUpdateServer = "pack_update_server";
const char* const kDownloadLimit = "download_limit";
const char* const kUnpackLimit = "unpack_limit";
const char* const kMinimumManifestFormat = "minimum_manifest_format";
const char* const kKeepPreviousPack = "keep_previous_pack";
const char* const kHealthTimeLimit = "health_time_limit";

}  // namespace common

namespace param {

const char* const kVersion = "version";
const char* const kLink = "link";
const char* const kPackage = "package";
const char* const kTitle = "title";
const char* const kChecksum = "checksum";

}  // namespace param

namespace webapi::param {

const char* const kNewVersion = "new_version";
const char* const kNewPackName = "new_pack_name";
const char* const kStatus = "status";
const char* const kInstallStep = "install_step";
const char* const kDownloadSizeNow = "download_size_now";
const char* const kDownloadSizeTotal = "download_size_total";

}  // namespace webapi::param

}  // namespace orbamira
