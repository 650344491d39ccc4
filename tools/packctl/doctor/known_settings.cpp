#include "tools/packctl/doctor/known_settings.h"

#include <array>
#include <charconv>
#include <cstdint>

#include "platform/constants.h"
#include "platform/http/network_values.h"
#include "tools/packctl/policy/policy_settings.h"
#include "tools/packctl/policy/release_choice.h"
#include "tools/packctl/record/support_period.h"

namespace orbamira::packctl {
namespace {

// Whether the whole text is a number of this kind from `least` to `most`.
template <typename Number>
bool IsNumber(const std::string& text, Number least, Number most) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end && number >= least && number <= most;
}

bool IsTimeLimit(const std::string& text) {
  constexpr double kDay = 24 * 60 * 60;
  return IsNumber<double>(text, 0, kDay) && !IsNumber<double>(text, 0, 0);
}

bool IsYesOrNo(const std::string& text) { return text == "yes" || text == "no"; }

bool IsUnpackLimit(const std::string& text) { return IsNumber<std::uint64_t>(text, 0, UINT64_MAX); }

bool IsChannel(const std::string& text) {
  constexpr std::size_t kLongest = 32;
  constexpr const char* kSigns = "abcdefghijklmnopqrstuvwxyz0123456789-";
  return text.size() <= kLongest && text.front() != '-' && text.find_first_not_of(kSigns) == std::string::npos;
}

bool IsDay(const std::string& text) { return ParseDay(text).has_value(); }

bool IsManifestFormat(const std::string& text) { return text == "1" || text == "2"; }

bool IsDownloadRate(const std::string& text) { return ParseDownloadRate(text).has_value(); }

bool IsDownloadLimit(const std::string& text) { return IsNumber<std::int64_t>(text, 0, INT64_MAX); }

}  // namespace

// NOLINTNEXTLINE(readability-function-size): a table
std::span<const KnownSetting> KnownSettings() {
  static const std::array kSettings = {
      KnownSetting{
          common::kPackUpdateServer, "an http or https address", nullptr, "",
          "Where the update server publishes the reply that names its packs. While it is empty, no check is made.",
          "pack_update_server=\"https://packs.example.com/packs/reply.json\""},
      KnownSetting{common::kDownloadLimit, "a whole number of bytes", IsDownloadLimit, "17179869184",
                   "The largest package to download. A larger one is refused, and the download fails.",
                   "download_limit=\"1073741824\""},
      KnownSetting{kDownloadRateSetting, kDownloadRateForm, IsDownloadRate, "",
                   "How many bytes per second a download takes at most, so that other programs keep some of the line. "
                   "While it is empty, a download takes what the line gives.",
                   "download_rate=\"1048576\""},
      KnownSetting{kProxySetting, kProxyForm, IsProxyAddress, "",
                   "The proxy through which all requests go: checks, downloads and those for the account. It may begin "
                   "with http, https, socks5 or socks5h, and have USER:PASSWORD@ before the host; then let only root "
                   "read the file. While it is empty, the environment counts, such as https_proxy. If it cannot be "
                   "used, no request is sent.",
                   "proxy=\"http://proxy.example.com:3128\"", true},
      KnownSetting{kCaFileSetting, kCaFileForm, IsCaFile, "",
                   "The certificate authorities that servers, and a proxy by https, must be certified by, in place of "
                   "the system's. If the file cannot be used, no request is sent.",
                   "ca_file=\"/etc/ssl/private-ca.pem\""},
      KnownSetting{
          common::kUnpackLimit, "a whole number of bytes", IsUnpackLimit, "17179869184",
          "The disk space that a package, and the payload in it, may take once unpacked: contents in blocks of 4096 "
          "bytes, and one block more for each file, folder and link. A package that takes more is refused.",
          "unpack_limit=\"4294967296\""},
      KnownSetting{common::kMinimumManifestFormat, "1 or 2", IsManifestFormat, "1",
                   "The oldest format that the manifest of a signed package may have. With 2, only packages are "
                   "accepted whose signature says which product, pack and version they are.",
                   "minimum_manifest_format=\"2\""},
      KnownSetting{
          "plugin_time_limit", "a number of seconds up to a day", IsTimeLimit, "60",
          "How long a plugin may take each time it runs. One that takes longer is ended and logged, and the update "
          "goes on.",
          "plugin_time_limit=\"7.5\""},
      KnownSetting{kChannel, "up to 32 small letters, digits and -", IsChannel, "",
                   "The maker's channel of this appliance, such as beta: it is offered the channel's releases beside "
                   "those for everyone. packctl heeds it.",
                   "channel=\"beta\""},
      KnownSetting{kSupportUntil, "a day, written YYYY-MM-DD", IsDay, "",
                   "The last day on which the maker closes security holes of this appliance. packctl status shows it, "
                   "and says when it has passed; nothing else changes then.",
                   "support_until=\"2031-12-31\""},
      KnownSetting{kUpdatePolicy,
                   "one of auto_download_auto_install, auto_download_manual_install and manual_download_manual_install",
                   IsUpdatePolicy, "manual_download_manual_install",
                   "What packctl does with a new pack on its own: it is downloaded and installed, it is downloaded and "
                   "waits for a "
                   "person, or it is only announced.",
                   "update_policy=\"auto_download_auto_install\""},
      KnownSetting{kInstallWindow, "one or more times such as 02:00-05:00", IsInstallWindow, "",
                   "The times of day, by the machine's own time zone, at which an install may begin by itself. Several "
                   "are separated by commas or blanks, and one may go across midnight. While it is empty, an install "
                   "may begin at any time.",
                   "install_window=\"02:00-05:00, 23:00-00:30\""},
      KnownSetting{kInstallWaitDays, "a number of days from 0 to 365", IsDays, "7",
                   "How long an install by itself waits for its window and for programs that use the installed pack. "
                   "The days count from the first check that found the pack.",
                   "install_wait_days=\"14\""},
      KnownSetting{kSecurityInstall, "automatic or by_policy", IsSecurityInstall, "automatic",
                   "Whether a release that its maker marked as a security release is installed by itself whatever the "
                   "update policy, or treated as any other.",
                   "security_install=\"by_policy\""},
      KnownSetting{kSecurityWaitDays, "a number of days from 0 to 365", IsDays, "3",
                   "How long at most a security release that is installed by itself waits for anything, a hold "
                   "included.",
                   "security_wait_days=\"1\""},
      KnownSetting{common::kHealthTimeLimit, "a number of seconds up to a day", IsTimeLimit, "60",
                   "How long each library of a new pack may take to be loaded, and each program of the health check "
                   "may run. One that takes longer rejects the pack.",
                   "health_time_limit=\"10\""},
      KnownSetting{
          common::kKeepPreviousPack, R"("yes" or "no")", IsYesOrNo, "yes",
          "Whether the pack that was installed before is kept, so that the appliance can go back to it. With \"no\" it "
          "goes as soon as the new pack is found healthy. It also goes when the disk lacks room for an update.",
          "keep_previous_pack=\"no\""},
  };
  return kSettings;
}

Json::Value DescribeSettings() {
  Json::Value settings = Json::arrayValue;
  for (const KnownSetting& setting : KnownSettings()) {
    Json::Value entry;
    entry["key"] = setting.key;
    entry["value"] = setting.value;
    entry["default"] = setting.default_value;
    entry["meaning"] = setting.meaning;
    entry["example"] = setting.example;
    settings.append(entry);
  }
  return settings;
}

}  // namespace orbamira::packctl
