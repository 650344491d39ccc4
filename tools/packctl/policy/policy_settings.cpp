#include "tools/packctl/policy/policy_settings.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "platform/constants.h"
#include "platform/orba_core_wrapper.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kAutomatic = "automatic";
constexpr const char* kByPolicy = "by_policy";

std::optional<updater::UpdatePolicy> ParsePolicy(const std::string& text) {
  const auto& texts = updater::kUpdatePolicyTexts;
  return std::ranges::find(texts, text) == texts.end() ? std::nullopt
                                                       : std::optional(updater::UpdatePolicyFromText(text));
}

std::optional<std::chrono::days> ParseDays(const std::string& text) {
  constexpr int kYear = 365;
  int days = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, days);
  const bool is_number = error == std::errc() && stop == end && days >= 0 && days <= kYear;
  return is_number ? std::optional(std::chrono::days(days)) : std::nullopt;
}

std::optional<bool> ParseSecurityInstall(const std::string& text) {
  return text == kAutomatic ? std::optional(true) : text == kByPolicy ? std::optional(false) : std::nullopt;
}

// Sets `value` to what the settings say: the first file that gives the key a value counts. False when that cannot be
// used, which is added to the problems.
template <typename Value>
bool Read(const char* key, std::optional<Value> (*parse)(const std::string&), Value& value, ReadPolicy& read) {
  for (const char* const file : {path::kPkgSetting, path::kDefaultPkgSetting}) {
    const std::string text = wrapper::OrbaCoreWrapper().GetKeyValue(file, key);
    if (text.empty()) {
      continue;
    }
    const std::optional<Value> parsed = parse(text);
    if (parsed) {
      value = *parsed;
    } else {
      read.problems.push_back(std::string(file) + ": " + key + " cannot be understood: " + text);
    }
    return parsed.has_value();
  }
  return true;
}

}  // namespace

bool IsUpdatePolicy(const std::string& text) { return ParsePolicy(text).has_value(); }
bool IsInstallWindow(const std::string& text) { return ParseTimeWindows(text).has_value(); }
bool IsDays(const std::string& text) { return ParseDays(text).has_value(); }
bool IsSecurityInstall(const std::string& text) { return ParseSecurityInstall(text).has_value(); }

ReadPolicy ReadPolicySettings() {
  ReadPolicy read;
  PolicySettings& settings = read.settings;
  Read(kUpdatePolicy, ParsePolicy, settings.policy, read);
  if (!Read(kInstallWindow, ParseTimeWindows, settings.windows, read)) {
    settings.policy = updater::kPolicyManualDownloadManualInstall;
  }
  Read(kInstallWaitDays, ParseDays, settings.most_wait, read);
  Read(kSecurityInstall, ParseSecurityInstall, settings.installs_security, read);
  Read(kSecurityWaitDays, ParseDays, settings.most_security_wait, read);
  return read;
}

}  // namespace orbamira::packctl
