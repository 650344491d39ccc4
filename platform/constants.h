#pragma once

#include "platform/export.h"

/// Every path, name and key that the updater and its platform agree on, in one place. Folders and names that differ
/// between appliances are listed in paths.h; docs/porting.md tells how to have others.
///
/// Paths are composed once, when the library is loaded, from a root prefix and a fixed path. The prefix is the
/// environment variable ORBAMIRA_ROOT, read with secure_getenv (so a set-user-id program ignores it), and empty when
/// the variable is not set. The texts live as long as the library is loaded, never change, and may be read from any
/// thread. Do not use them in a constructor that runs before main() in the same shared object.
#pragma GCC visibility push(default)

namespace orbamira {

/// Directory that a package is downloaded into; made before a download and removed after an install.
extern const char* const kDownloadFolder;
/// Directory that holds the installed package directories.
extern const char* const kTargetFolder;
/// Name of the codec pack's directory under kTargetFolder.
extern const char* const kPackFolderName;
/// Information file of this product's own package (key=value); its version is sent to the update server.
extern const char* const kPackageInfoPath;
/// Identifier of this product's own package, sent to the update server.
extern const char* const kPackageId;
/// Client name under which the account file keeps this library's tokens.
extern const char* const kPkceClientName;
/// Codec name of AAC, as applications write it into the codec-requirements file.
extern const char* const kAac;
/// Name of the pack that carries HEVC alone; a member of the update server's reply.
extern const char* const kHevcPack;
/// Name of the pack that carries HEVC and AAC; a member of the update server's reply.
extern const char* const kHevcAacPack;

/// Absolute paths, under the root prefix where nothing else is said.
namespace path {

/// Program told of each step of an install or uninstall.
extern const char* const kNotifyPluginPyPath;
/// Program that lists the plugins' application ids into the file named by its only argument.
extern const char* const kGetAppIdPyPath;
/// Directory of the plugins, which the two programs above run.
extern const char* const kPluginFolder;
/// The answer file of kGetAppIdPyPath; exists only while the answer is being read.
extern const char* const kTempPluginAppIdPath;
/// Program that unpacks package.tgz: "-xf ARCHIVE -C DIR".
extern const char* const kTarPath;
/// Program that puts an unpacked pack in place, whole or not at all: "-a SRC DST".
extern const char* const kCpPath;
/// Program that takes a folder away: "-rf DIR". Not the system's rm, which leaves a part of a pack where the pack was
/// when it is cut short, or when another process moves the folder back meanwhile.
extern const char* const kRmPath;
/// Program that unpacks a package archive: "-xf ARCHIVE -C DIR".
extern const char* const kOrbaArchivePath;
/// Program that checks the health of a pack: "FOLDER".
extern const char* const kHealthProgramPath;
/// Directory of the programs that also judge it, which kHealthProgramPath runs.
extern const char* const kHealthFolder;
/// Directory that a new pack is unpacked into; on the same file system as kPackFolderPath.
extern const char* const kTempPackFolderPath;
/// Directory of the installed pack.
extern const char* const kPackFolderPath;
/// Where the previous pack waits while a new one is put in place; on the same file system as kPackFolderPath.
extern const char* const kBackupPackFolderPath;
/// The pack that was installed before, kept so that the appliance can go back to it; on the same file system as
/// kPackFolderPath.
extern const char* const kPreviousPackFolderPath;
/// Information file of the installed pack (key=value).
extern const char* const kPackInfoPath;
/// Marker file: the installed pack carries AAC.
extern const char* const kHasAacPath;
/// Marker file: the installed pack carries HEVC.
extern const char* const kHasHevcPath;
/// The downloaded package, inside kDownloadFolder.
extern const char* const kDownloadedOpkPath;
/// The status store (JSON object of texts), read by other processes under kPackStatusLock.
extern const char* const kPackStatusFile;
/// Lock file of the status store.
extern const char* const kPackStatusLock;
/// The versions that are rejected (JSON object).
extern const char* const kHealthFile;
/// The pack that was found healthy (key=value).
extern const char* const kHealthyPackFile;
/// What packctl has done, one JSON object a line; an older part lies beside it under the same name with ".1" behind.
extern const char* const kHistoryFile;
/// The offer that waits to be installed, as packctl keeps it (JSON object).
extern const char* const kOfferFile;
/// The owner's word that nothing is installed, as packctl keeps it (JSON object).
extern const char* const kHoldFile;
/// The highest minimum version and the newest signature of the packages that were accepted (key=value).
extern const char* const kAcceptedPackagesFile;
/// What applications ask for: a JSON object of codec name to the list of those who ask.
extern const char* const kCodecRequirementsPath;
/// Lock file of the codec-requirements file.
extern const char* const kCodecRequirementsLock;
/// The machine's own settings (key=value); wins over kDefaultPkgSetting.
extern const char* const kPkgSetting;
/// The maker's default settings (key=value).
extern const char* const kDefaultPkgSetting;
/// The certificates that a package must be signed by (PEM); where there is none, unsigned packages are accepted.
extern const char* const kKeyring;
/// The signed-in account (JSON, mode 0600).
extern const char* const kAccountFile;
/// Lock file of kAccountFile.
extern const char* const kAccountLock;
/// Lock file of the updater: whoever changes pack, download or record holds it, packctl and every other host.
extern const char* const kPackctlLock;
/// The system's time zone: a symbolic link into the zone database.
extern const char* const kLocaltime;

}  // namespace path

/// Files of the appliance's settings and identity, and the keys in them.
namespace common {

/// The system's main settings file (key=value), which holds kUnique.
extern const char* const kDefaultOrbaInfoPath;
/// The system's version file (key=value), which holds kMajorVersion, kMinorVersion and kBuildNumber.
extern const char* const kDefaultVersionPath;
/// Key of the system's unique value.
extern const char* const kUnique;
/// Key of a package's version in a package information file.
extern const char* const kVersion;
/// Key of the system's major version.
extern const char* const kMajorVersion;
/// Key of the system's minor version.
extern const char* const kMinorVersion;
/// Key of the system's build number.
extern const char* const kBuildNumber;
/// Key of the update server's address in the settings files.
extern const char* const kPackUpdateServer;
/// Key of the bytes that a download may have, in the settings files.
extern const char* const kDownloadLimit;
/// Key of the bytes that an archive may unpack to, in the settings files.
extern const char* const kUnpackLimit;
/// Key of the oldest format that the manifest of a signed package may have, in the settings files.
extern const char* const kMinimumManifestFormat;
/// Key of whether the previous pack is kept ("yes" or "no"), in the settings files.
extern const char* const kKeepPreviousPack;
/// Key of the seconds that each part of a health check may take, in the settings files.
extern const char* const kHealthTimeLimit;

}  // namespace common

/// Keys of what describes a package.
namespace param {

/// Key of the version, in an information file and in the download information.
extern const char* const kVersion;
/// Key of the package's address in the download information.
extern const char* const kLink;
/// Key of the package's name in an information file.
extern const char* const kPackage;
/// Key of the pack's title in the download information.
extern const char* const kTitle;
/// Key of the package's digest (hexadecimal) in the download information.
extern const char* const kChecksum;

}  // namespace param

/// Keys of the status store; the web interface uses the same names.
namespace webapi::param {

/// Version of the pack on offer.
extern const char* const kNewVersion;
/// Name of the pack on offer.
extern const char* const kNewPackName;
/// What the updater is doing, a text of orbamira::updater::kPackStatusTexts.
extern const char* const kStatus;
/// The step of the install under way, a text of orbamira::updater::kInstallStepTexts.
extern const char* const kInstallStep;
/// Bytes downloaded so far, in decimal.
extern const char* const kDownloadSizeNow;
/// Bytes of the whole download, in decimal.
extern const char* const kDownloadSizeTotal;

}  // namespace webapi::param

}  // namespace orbamira

#pragma GCC visibility pop
