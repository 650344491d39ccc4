#include "updater/enumerations.h"

#include <gmock/gmock.h>

#include <array>
#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace orbamira::updater {
namespace {

using testing::ElementsAre;

template <typename Enumeration>
constexpr bool kHas32SignedBits = std::is_same_v<std::underlying_type_t<Enumeration>, std::int32_t>;

static_assert(kHas32SignedBits<UpdatePolicy>);
static_assert(kHas32SignedBits<PackStatus>);
static_assert(kHas32SignedBits<InstallStep>);
static_assert(kHas32SignedBits<NotifyPluginEvent>);
static_assert(kHas32SignedBits<NotifyPluginTiming>);
static_assert(kHas32SignedBits<NotifyPluginStatus>);

// The error of a text that is unknown; empty when it is known.
template <typename Conversion>
std::string ErrorOf(Conversion conversion, const std::string& text) {
  try {
    static_cast<void>(conversion(text));
    return "";
  } catch (const std::out_of_range& error) {
    return error.what();
  }
}

template <typename Texts>
std::vector<std::string> AsVector(const Texts& texts) {
  return {texts.begin(), texts.end()};
}

TEST(EnumerationsTest, NumbersAreThoseOfTheContract) {
  EXPECT_THAT((std::vector<int>{kPolicyAutoDownloadAutoInstall, kPolicyAutoDownloadManualInstall,
                                kPolicyManualDownloadManualInstall}),
              ElementsAre(0, 1, 2));
  EXPECT_THAT((std::vector<int>{kStatusLost, kStatusNeedDownload, kStatusDownloading, kStatusDownloadFailed,
                                kStatusNeedInstall, kStatusInstalling, kStatusInstallFailed,
                                kStatusDownloadingInstalling, kStatusDownloadInstallFailed, kStatusUpToDate}),
              ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
  EXPECT_THAT((std::vector<int>{kStepNone, kStepPreInstall, kStepInstall, kStepPostInstall, kStepPreUninstall,
                                kStepUninstall, kStepPostUninstall}),
              ElementsAre(0, 1, 2, 3, 4, 5, 6));
  EXPECT_THAT((std::vector<int>{kEventInstall, kEventUninstall}), ElementsAre(0, 1));
  EXPECT_THAT((std::vector<int>{kTimingPre, kTimingPost}), ElementsAre(0, 1));
  EXPECT_THAT((std::vector<int>{kNotifyInstall, kNotifyUninstall, kNotifyUpgrade}), ElementsAre(0, 1, 2));
}

TEST(EnumerationsTest, TextsAreThoseOfTheContract) {
  EXPECT_THAT(AsVector(kUpdatePolicyTexts), ElementsAre("auto_download_auto_install", "auto_download_manual_install",
                                                        "manual_download_manual_install"));
  EXPECT_THAT(AsVector(kPackStatusTexts),
              ElementsAre("lost", "need_download", "downloading", "download_failed", "need_install", "installing",
                          "install_failed", "downloading_installing", "download_install_failed", "up_to_date"));
  EXPECT_THAT(AsVector(kInstallStepTexts), ElementsAre("", "pre_install", "install", "post_install", "pre_uninstall",
                                                       "uninstall", "post_uninstall"));
  EXPECT_THAT(AsVector(kNotifyPluginEventTexts), ElementsAre("install", "uninstall"));
  EXPECT_THAT(AsVector(kNotifyPluginTimingTexts), ElementsAre("pre", "post"));
  EXPECT_THAT(AsVector(kNotifyPluginStatusTexts), ElementsAre("INSTALL", "UNINSTALL", "UPGRADE"));
}

TEST(EnumerationsTest, EveryUpdatePolicyMakesTheRoundTrip) {
  for (std::size_t value = 0; value < kUpdatePolicyTexts.size(); ++value) {
    EXPECT_EQ(UpdatePolicyFromText(kUpdatePolicyTexts[value]), static_cast<UpdatePolicy>(value));
  }
}

TEST(EnumerationsTest, EveryPackStatusMakesTheRoundTrip) {
  for (std::size_t value = 0; value < kPackStatusTexts.size(); ++value) {
    EXPECT_EQ(PackStatusFromText(kPackStatusTexts[value]), static_cast<PackStatus>(value));
  }
}

// Timings are never read back by the library: a plugin does, from a text that belongs to one value alone.
TEST(EnumerationsTest, EveryTimingMakesTheRoundTrip) {
  const std::map<std::string, NotifyPluginTiming> of_plugins = {{"pre", kTimingPre}, {"post", kTimingPost}};
  ASSERT_EQ(kNotifyPluginTimingTexts.size(), of_plugins.size());
  for (const NotifyPluginTiming timing : {kTimingPre, kTimingPost}) {
    EXPECT_EQ(of_plugins.at(kNotifyPluginTimingTexts.at(static_cast<std::size_t>(timing))), timing);
  }
}

TEST(EnumerationsTest, EveryInstallStepButTheLastMakesTheRoundTrip) {
  for (std::size_t value = 0; value + 1 < kInstallStepTexts.size(); ++value) {
    EXPECT_EQ(InstallStepFromText(kInstallStepTexts[value]), static_cast<InstallStep>(value));
  }
}

TEST(EnumerationsTest, NoStepIsTheEmptyTextBothWays) {
  EXPECT_STREQ(kInstallStepTexts[kStepNone], "");
  EXPECT_EQ(InstallStepFromText(""), kStepNone);
}

TEST(EnumerationsTest, PostUninstallReadsBackAsPostInstall) {
  EXPECT_STREQ(kInstallStepTexts[kStepPostUninstall], "post_uninstall");
  EXPECT_EQ(InstallStepFromText("post_uninstall"), kStepPostInstall);
}

TEST(EnumerationsTest, UnknownTextThrowsAndIsNoDefault) {
  EXPECT_EQ(ErrorOf(UpdatePolicyFromText, "never"), "_Map_base::at");
  EXPECT_EQ(ErrorOf(UpdatePolicyFromText, ""), "_Map_base::at");
  EXPECT_EQ(ErrorOf(PackStatusFromText, "unknown"), "_Map_base::at");
  EXPECT_EQ(ErrorOf(PackStatusFromText, ""), "_Map_base::at");
  EXPECT_EQ(ErrorOf(InstallStepFromText, "unknown"), "_Map_base::at");
}

TEST(EnumerationsTest, LookupIsCaseSensitive) {
  EXPECT_EQ(ErrorOf(PackStatusFromText, "UP_TO_DATE"), "_Map_base::at");
  EXPECT_EQ(ErrorOf(PackStatusFromText, "Up_to_date"), "_Map_base::at");
  EXPECT_EQ(ErrorOf(UpdatePolicyFromText, "Auto_download_auto_install"), "_Map_base::at");
  EXPECT_EQ(ErrorOf(InstallStepFromText, "INSTALL"), "_Map_base::at");
}

TEST(EnumerationsTest, TextOfAnotherEnumerationIsUnknown) {
  EXPECT_EQ(ErrorOf(PackStatusFromText, "INSTALL"), "_Map_base::at");
  EXPECT_EQ(ErrorOf(PackStatusFromText, "post_install"), "_Map_base::at");
  EXPECT_EQ(ErrorOf(InstallStepFromText, "need_install"), "_Map_base::at");
}

TEST(EnumerationsTest, TextsAreNotTrimmed) {
  EXPECT_EQ(ErrorOf(PackStatusFromText, " lost"), "_Map_base::at");
  EXPECT_EQ(ErrorOf(PackStatusFromText, "lost\n"), "_Map_base::at");
}

}  // namespace
}  // namespace orbamira::updater
