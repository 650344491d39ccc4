#include "platform/constants.h"

#include <cstdlib>
#include <forward_list>
#include <string>

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

const char* const kDownloadFolder = AtRoot("/var/cache/orbamira/download");
const char* const kTargetFolder = AtRoot("/var/lib/orbamira/packages");
const char* const kPackFolderName = "codec-pack";
const char* const kPackageInfoPath = AtRoot("/usr/share/orbamira/INFO");
const char* const kPackageId = "orbamira";
const char* const kPkceClientName = "orbamira-updater";
const char* const kAac = "aac";
const char* const kHevcPack = "orbamira-hevc";
const char* const kHevcAacPack = "orbamira-hevc-aac";

namespace path {

const char* const kNotifyPluginPyPath = AtRoot("/usr/libexec/orbamira/notify-plugins");
const char* const kGetAppIdPyPath = AtRoot("/usr/libexec/orbamira/list-app-ids");
const char* const kPluginFolder = AtRoot("/usr/lib/orbamira/plugins");
const char* const kTempPluginAppIdPath = AtRoot("/run/orbamira/plugin-app-ids.json");
const char* const kTarPath = AtRoot("/usr/libexec/orbamira/orba-tar");
const char* const kCpPath = AtRoot("/usr/libexec/orbamira/orba-copy");
const char* const kRmPath = AtRoot("/usr/libexec/orbamira/orba-remove");
const char* const kOrbaArchivePath = AtRoot("/usr/libexec/orbamira/orba-archive");
const char* const kTempPackFolderPath = AtRoot("/var/lib/orbamira/packages/.codec-pack.unpacked");
const char* const kPackFolderPath = AtRoot("/var/lib/orbamira/packages/codec-pack");
const char* const kBackupPackFolderPath = AtRoot("/var/lib/orbamira/packages/.codec-pack.backup");
const char* const kPackInfoPath = AtRoot("/var/lib/orbamira/packages/codec-pack/INFO");
const char* const kHasAacPath = AtRoot("/var/lib/orbamira/packages/codec-pack/has_aac");
const char* const kHasHevcPath = AtRoot("/var/lib/orbamira/packages/codec-pack/has_hevc");
const char* const kDownloadedOpkPath = AtRoot("/var/cache/orbamira/download/codec-pack.opk");
const char* const kPackStatusFile = AtRoot("/var/lib/orbamira/status.json");
const char* const kPackStatusLock = AtRoot("/run/orbamira/lock/status.lock");
const char* const kHistoryFile = AtRoot("/var/lib/orbamira/history.jsonl");
const char* const kCodecRequirementsPath = AtRoot("/var/lib/orbamira/codec-requirements.json");
const char* const kCodecRequirementsLock = AtRoot("/run/orbamira/lock/codec-requirements.lock");
const char* const kPkgSetting = AtRoot("/etc/orbamira/updater.conf");
const char* const kDefaultPkgSetting = AtRoot("/usr/share/orbamira/updater.conf");
const char* const kKeyring = AtRoot("/etc/orbamira/keyring.pem");
const char* const kAccountFile = AtRoot("/etc/orbamira/account.json");
const char* const kAccountLock = AtRoot("/run/orbamira/lock/account.lock");
const char* const kPackctlLock = AtRoot("/run/orbamira/lock/packctl.lock");
const char* const kLocaltime = AtRoot("/etc/localtime");

}  // namespace path

namespace common {

const char* const kDefaultOrbaInfoPath = AtRoot("/etc/orbamira/system.conf");
const char* const kDefaultVersionPath = AtRoot("/etc/orbamira/version.conf");
const char* const kUnique = "unique";
const char* const kVersion = "version";
const char* const kMajorVersion = "major_version";
const char* const kMinorVersion = "minor_version";
const char* const kBuildNumber = "build_number";
const char* const kPackUpdateServer = "pack_update_server";
const char* const kDownloadLimit = "download_limit";
const char* const kUnpackLimit = "unpack_limit";

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
