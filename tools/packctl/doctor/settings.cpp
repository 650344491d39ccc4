#include <algorithm>
#include <array>
#include <charconv>
#include <sstream>
#include <string_view>

#include "platform/constants.h"
#include "platform/http/shown_link.h"
#include "platform/orba_core_wrapper.h"
#include "platform/settings_line.h"
#include "tools/packctl/doctor/checks.h"
#include "updater/kos_helper.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kCheck = "settings";
constexpr const char* kPluginTimeLimit = "plugin_time_limit";
constexpr std::array kSettingsFiles = {&path::kPkgSetting, &path::kDefaultPkgSetting};

bool IsKnown(std::string_view key) {
  return key == common::kPackUpdateServer || key == common::kUnpackLimit || key == common::kDownloadLimit ||
         key == kPluginTimeLimit;
}

void CheckLine(const std::string& place, const std::string& line, Findings& findings) {
  constexpr const char* kRemedy = "correct or remove the line";
  if (IsComment(line)) {
    return;
  }
  const std::optional<SettingLine> setting = ParseSettingLine(line);
  if (!setting) {
    findings.push_back({kCheck, place + " is not " + kSettingForm + " and is passed over", kRemedy});
  } else if (!IsKnown(setting->key)) {
    findings.push_back({kCheck, place + " sets " + std::string(setting->key) + ", which nothing reads", kRemedy});
  }
}

void CheckLines(const std::string& file, const std::string& text, Findings& findings) {
  std::istringstream lines(text);
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    CheckLine(file + ": line " + std::to_string(number), line, findings);
  }
}

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

bool IsUnpackLimit(const std::string& text) { return IsNumber<std::uint64_t>(text, 0, UINT64_MAX); }

bool IsDownloadLimit(const std::string& text) { return IsNumber<std::int64_t>(text, 0, INT64_MAX); }

// The file that has the say about a key is the first that gives it a value.
void CheckValue(const char* key, bool (*is_valid)(const std::string&), const char* kind, Findings& findings) {
  wrapper::OrbaCoreWrapper core;
  for (const char* const* file : kSettingsFiles) {
    const std::string text = core.GetKeyValue(*file, key);
    if (text.empty()) {
      continue;
    }
    if (!is_valid(text)) {
      findings.push_back({kCheck, std::string(*file) + ": " + key + " is not " + kind + ": " + text,
                          std::string("set it to ") + kind});
    }
    return;
  }
}

void CheckIdentity(const char* file, const char* key, const std::string& value, Findings& findings) {
  if (value.empty()) {
    findings.push_back({kCheck, std::string(file) + " gives no " + key + ", without which no update is asked for",
                        std::string("set ") + key + " there"});
  }
}

}  // namespace

Findings CheckSettings() {
  Findings findings;
  for (const char* const* file : kSettingsFiles) {
    const FileText read = ReadText(*file);
    if (!read.problem.empty()) {
      findings.push_back({kCheck, std::string(*file) + " cannot be read: " + read.problem,
                          "put a file there that packctl may read, or none"});
    }
    CheckLines(*file, read.text.value_or(""), findings);
  }
  const auto facts = updater::KOSHelper::Create();
  const std::string server = facts->GetPackUpdateServerUrl();
  if (server.empty()) {
    findings.push_back({kCheck, "no update server is set",
                        std::string("set ") + common::kPackUpdateServer + " in " + path::kPkgSetting});
  } else if (SchemeOf(server).empty()) {
    findings.push_back({kCheck, "the update server's address is none of http or https: " + ShownLink(server),
                        std::string("correct ") + common::kPackUpdateServer});
  }
  CheckValue(kPluginTimeLimit, IsTimeLimit, "a number of seconds up to a day", findings);
  CheckValue(common::kUnpackLimit, IsUnpackLimit, "a whole number of bytes", findings);
  CheckValue(common::kDownloadLimit, IsDownloadLimit, "a whole number of bytes", findings);
  CheckIdentity(kPackageInfoPath, common::kVersion, facts->GetVersionFromPath(kPackageInfoPath), findings);
  CheckIdentity(common::kDefaultOrbaInfoPath, common::kUnique, facts->GetUnique(), findings);
  CheckIdentity(common::kDefaultVersionPath, common::kMajorVersion, facts->GetMajorVersion(), findings);
  CheckIdentity(common::kDefaultVersionPath, common::kMinorVersion, facts->GetMinorVersion(), findings);
  CheckIdentity(common::kDefaultVersionPath, common::kBuildNumber, facts->GetBuildNumber(), findings);
  return findings;
}

}  // namespace orbamira::packctl
