#include <algorithm>
#include <array>
#include <sstream>

#include "platform/constants.h"
#include "platform/http/shown_link.h"
#include "platform/orba_core_wrapper.h"
#include "platform/settings_line.h"
#include "tools/packctl/cli/nearest_word.h"
#include "tools/packctl/doctor/checks.h"
#include "tools/packctl/doctor/known_settings.h"
#include "tools/packctl/record/support_period.h"
#include "updater/kos_helper.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kCheck = "settings";
constexpr std::array kSettingsFiles = {&path::kPkgSetting, &path::kDefaultPkgSetting};

std::vector<std::string> KnownKeys() {
  std::vector<std::string> keys;
  for (const KnownSetting& setting : KnownSettings()) {
    keys.emplace_back(setting.key);
  }
  return keys;
}

void CheckLine(const std::string& place, const std::string& line, Findings& findings) {
  if (IsComment(line)) {
    return;
  }
  const std::optional<SettingLine> setting = ParseSettingLine(line);
  if (!setting) {
    findings.push_back(
        {kCheck, place + " is not " + kSettingForm + " and is passed over", "correct or remove the line"});
    return;
  }
  const std::string key(setting->key);
  const std::vector<std::string> known = KnownKeys();
  if (std::find(known.begin(), known.end(), key) == known.end()) {
    const std::string nearest = NearestWord(key, known);
    findings.push_back({kCheck, place + " sets " + key + ", which nothing reads",
                        nearest.empty() ? "remove the line" : "write " + nearest + ", or remove the line"});
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

// The file that has the say about a key is the first that gives it a value.
void CheckValue(const KnownSetting& setting, Findings& findings) {
  wrapper::OrbaCoreWrapper core;
  for (const char* const* file : kSettingsFiles) {
    const std::string text = core.GetKeyValue(*file, setting.key);
    if (text.empty()) {
      continue;
    }
    if (!setting.is_valid(text)) {
      findings.push_back({kCheck, std::string(*file) + ": " + setting.key + " is not " + setting.value + ": " + text,
                          std::string("set it to ") + setting.value});
    }
    return;
  }
}

void CheckSupport(Findings& findings) {
  const std::optional<std::chrono::sys_days> last = ReadSupportEnd();
  if (last && HasPassed(*last)) {
    findings.push_back({kCheck, "the maker's support of this appliance ended on " + DayText(*last),
                        "ask the maker who closes security holes from now on"});
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
  for (const KnownSetting& setting : KnownSettings()) {
    if (setting.is_valid != nullptr) {
      CheckValue(setting, findings);
    }
  }
  CheckSupport(findings);
  CheckIdentity(kPackageInfoPath, common::kVersion, facts->GetVersionFromPath(kPackageInfoPath), findings);
  CheckIdentity(common::kDefaultOrbaInfoPath, common::kUnique, facts->GetUnique(), findings);
  CheckIdentity(common::kDefaultVersionPath, common::kMajorVersion, facts->GetMajorVersion(), findings);
  CheckIdentity(common::kDefaultVersionPath, common::kMinorVersion, facts->GetMinorVersion(), findings);
  CheckIdentity(common::kDefaultVersionPath, common::kBuildNumber, facts->GetBuildNumber(), findings);
  return findings;
}

}  // namespace orbamira::packctl
