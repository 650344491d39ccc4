#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform/export.h"

/// The values that the library stores, reports and hands to plugins, each with its number and its text. Numbers and
/// texts are contracts with the status store, other processes and the plugins: never change or reuse one.
namespace orbamira::updater {

/// What the library does on its own when a new pack becomes available.
enum UpdatePolicy : std::int32_t {
  kPolicyAutoDownloadAutoInstall = 0,
  kPolicyAutoDownloadManualInstall = 1,
  kPolicyManualDownloadManualInstall = 2,
};

/// The persisted state of the codec pack.
enum PackStatus : std::int32_t {
  kStatusLost = 0,  ///< what a store without a status reads as; never written
  kStatusNeedDownload = 1,
  kStatusDownloading = 2,
  kStatusDownloadFailed = 3,
  kStatusNeedInstall = 4,
  kStatusInstalling = 5,
  kStatusInstallFailed = 6,
  kStatusDownloadingInstalling = 7,
  kStatusDownloadInstallFailed = 8,
  kStatusUpToDate = 9,
};

/// The step of an install or uninstall that is under way.
enum InstallStep : std::int32_t {
  kStepNone = 0,
  kStepPreInstall = 1,
  kStepInstall = 2,
  kStepPostInstall = 3,
  kStepPreUninstall = 4,
  kStepUninstall = 5,
  kStepPostUninstall = 6,
};

/// Which operation a plugin notification is about.
enum NotifyPluginEvent : std::int32_t {
  kEventInstall = 0,
  kEventUninstall = 1,
};

/// Whether plugins are told before or after the operation.
enum NotifyPluginTiming : std::int32_t {
  kTimingPre = 0,
  kTimingPost = 1,
};

/// What the operation means for the pack as a whole.
enum NotifyPluginStatus : std::int32_t {
  kNotifyInstall = 0,
  kNotifyUninstall = 1,
  kNotifyUpgrade = 2,
};

/// The texts of UpdatePolicy, indexed by the value; the index is not checked.
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

/// The value of a text, case-sensitively. An unknown text throws std::out_of_range("_Map_base::at"). Safe to call from
/// several threads at once.
[[nodiscard]] ORBAMIRA_EXPORT UpdatePolicy UpdatePolicyFromText(const std::string& text);
/// As above.
[[nodiscard]] ORBAMIRA_EXPORT PackStatus PackStatusFromText(const std::string& text);

/// As above; "post_uninstall" reads back as kStepPostInstall, on purpose: readers of the store rely on it.
[[nodiscard]] ORBAMIRA_EXPORT InstallStep InstallStepFromText(const std::string& text);

}  // namespace orbamira::updater
