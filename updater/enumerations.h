#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform/export.h"

/// The values that the library stores, reports and hands to plugins, each with its number and its text. Status store,
/// other processes and plugins rely on both: never change or reuse one.
namespace orbamira::updater {

/// What happens without a user when a new pack becomes available.
enum UpdatePolicy : std::int32_t {
  kPolicyAutoDownloadAutoInstall = 0,      ///< it is downloaded and installed
  kPolicyAutoDownloadManualInstall = 1,    ///< it is downloaded and waits for the user to install it
  kPolicyManualDownloadManualInstall = 2,  ///< it waits for the user to download and install it
};

/// The recorded state of the codec pack.
enum PackStatus : std::int32_t {
  kStatusLost = 0,                   ///< nothing is recorded; read from a store without a status, never written
  kStatusNeedDownload = 1,           ///< a new pack is on offer
  kStatusDownloading = 2,            ///< Download() is at work
  kStatusDownloadFailed = 3,         ///< Download() failed
  kStatusNeedInstall = 4,            ///< a downloaded pack waits for Install()
  kStatusInstalling = 5,             ///< Install() is at work
  kStatusInstallFailed = 6,          ///< Install() failed; the downloaded pack still waits
  kStatusDownloadingInstalling = 7,  ///< DownloadAndInstall() is at work
  kStatusDownloadInstallFailed = 8,  ///< DownloadAndInstall() failed, or an install was interrupted
  kStatusUpToDate = 9,               ///< the newest pack known is installed
};

/// The step of an install or uninstall in progress.
enum InstallStep : std::int32_t {
  kStepNone = 0,           ///< no install is in progress
  kStepPreInstall = 1,     ///< not recorded by this version
  kStepInstall = 2,        ///< the new pack is being put in place
  kStepPostInstall = 3,    ///< the new pack is in place, and the plugins were told
  kStepPreUninstall = 4,   ///< the plugins are being told that the old pack goes
  kStepUninstall = 5,      ///< the old pack is being moved aside
  kStepPostUninstall = 6,  ///< the old pack is moved aside, and the plugins were told
};

/// Which operation a plugin notification is about.
enum NotifyPluginEvent : std::int32_t {
  kEventInstall = 0,
  kEventUninstall = 1,
};

/// Whether plugins are notified before or after the operation.
enum NotifyPluginTiming : std::int32_t {
  kTimingPre = 0,
  kTimingPost = 1,
};

/// What the operation means for the pack as a whole.
enum NotifyPluginStatus : std::int32_t {
  kNotifyInstall = 0,    ///< a pack comes where there was none
  kNotifyUninstall = 1,  ///< the pack goes, and none comes
  kNotifyUpgrade = 2,    ///< a new pack comes in place of an old one
};

/// The texts of UpdatePolicy, indexed by the value. The index is not checked.
inline constexpr std::array<const char*, 3> kUpdatePolicyTexts = {
    "auto_download_auto_install",
    "auto_download_manual_install",
    "manual_download_manual_install",
};
/// The texts of PackStatus, likewise.
inline constexpr std::array<const char*, 10> kPackStatusTexts = {
    "lost",
    "need_download",
    "downloading",
    "download_failed",
    "need_install",
    "installing",
    "install_failed",
    "downloading_installing",
    "download_install_failed",
    "up_to_date",
};
/// The texts of InstallStep, likewise.
inline constexpr std::array<const char*, 7> kInstallStepTexts = {
    "", "pre_install", "install", "post_install", "pre_uninstall", "uninstall", "post_uninstall",
};
/// The texts of NotifyPluginEvent, likewise.
inline constexpr std::array<const char*, 2> kNotifyPluginEventTexts = {"install", "uninstall"};
/// The texts of NotifyPluginTiming, likewise.
inline constexpr std::array<const char*, 2> kNotifyPluginTimingTexts = {"pre", "post"};
/// The texts of NotifyPluginStatus, likewise.
inline constexpr std::array<const char*, 3> kNotifyPluginStatusTexts = {"INSTALL", "UNINSTALL", "UPGRADE"};

/// The value with this text; upper and lower case differ. Throws std::out_of_range("_Map_base::at") for any other text.
/// Safe to call from several threads at once.
[[nodiscard]] ORBAMIRA_EXPORT UpdatePolicy UpdatePolicyFromText(const std::string& text);
/// As above.
[[nodiscard]] ORBAMIRA_EXPORT PackStatus PackStatusFromText(const std::string& text);

/// As above. "post_uninstall" gives kStepPostInstall on purpose: readers of the store rely on it.
[[nodiscard]] ORBAMIRA_EXPORT InstallStep InstallStepFromText(const std::string& text);

}  // namespace orbamira::updater
