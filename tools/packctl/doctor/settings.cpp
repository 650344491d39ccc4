#include <openssl/bio.h>
#include <openssl/err.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

#include "platform/constants.h"
#include "platform/http/network_values.h"
#include "platform/http/shown_link.h"
#include "platform/posix/openssl.h"
#include "platform/settings_file.h"
#include "platform/settings_line.h"
#include "tools/packctl/cli/nearest_word.h"
#include "tools/packctl/doctor/checks.h"
#include "tools/packctl/doctor/known_settings.h"
#include "tools/packctl/record/support_period.h"
#include "updater/kos_helper.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kSettings = "settings";
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
  // With a colon it is the beginning of an address, and there may be a password in it.
  if (!setting || setting->key.find(':') != std::string_view::npos) {
    findings.push_back(
        {kSettings, place + " is not " + kSettingForm + " and is passed over", "correct or remove the line"});
    return;
  }
  const std::string key(setting->key);
  const std::vector<std::string> known = KnownKeys();
  if (std::find(known.begin(), known.end(), key) == known.end()) {
    const std::string nearest = NearestWord(key, known);
    findings.push_back({kSettings, place + " sets " + key + ", which nothing reads",
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

void CheckValue(const KnownSetting& known, Findings& findings) {
  const std::optional<Setting> setting = ReadOwnOrMakersSetting(known.key);
  if (setting && !known.is_valid(setting->value)) {
    findings.push_back(
        {kSettings,
         setting->file + ": " + known.key + " is not " + known.value + (known.is_secret ? "" : ": " + setting->value),
         std::string("set it to ") + known.value});
  }
}

bool IsDamagedOrEmpty(const std::string& pem) {
  const Owned<BIO, BIO_free> source(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  const PemObjects infos(source ? PEM_X509_INFO_read_bio(source.get(), nullptr, GiveNoPassphrase, nullptr) : nullptr);
  ERR_clear_error();
  return !infos || sk_X509_INFO_num(infos.get()) == 0 || sk_X509_INFO_value(infos.get(), 0)->x509 == nullptr;
}

void CheckCaFile(Findings& findings) {
  const std::optional<Setting> setting = ReadOwnOrMakersSetting(kCaFileSetting);
  if (!setting || !IsCaFile(setting->value)) {
    return;
  }
  const FileText read = ReadText(setting->value);
  std::string problem = read.problem.empty() ? "there is no such file" : read.problem;
  if (read.text && !IsDamagedOrEmpty(*read.text)) {
    return;
  }
  if (read.text) {
    problem = "it is damaged, or holds no certificate";
  }
  findings.push_back({kSettings,
                      setting->file + ": " + kCaFileSetting + " cannot be used: " + setting->value + ": " + problem,
                      "put the certificates of the authorities there (PEM)"});
}

void CheckPasswordOfProxy(Findings& findings) {
  const std::optional<Setting> setting = ReadOwnOrMakersSetting(kProxySetting);
  struct stat about {};
  if (setting && setting->value.find('@') != std::string::npos && stat(setting->file.c_str(), &about) == 0 &&
      (about.st_mode & S_IROTH) != 0) {
    findings.push_back({kSettings, setting->file + " has the password of a proxy in it, and everyone may read it",
                        "run \"chmod o-r " + setting->file + "\""});
  }
}

void CheckSupport(Findings& findings) {
  const std::optional<std::chrono::sys_days> last = ReadSupportEnd();
  if (last && HasPassed(*last)) {
    findings.push_back({kSettings, "the maker's support of this appliance ended on " + DayText(*last),
                        "ask the maker who closes security holes from now on"});
  }
}

void CheckIdentity(const char* file, const char* key, const std::string& value, Findings& findings) {
  if (value.empty()) {
    findings.push_back({kSettings, std::string(file) + " gives no " + key + ", without which no update is asked for",
                        std::string("set ") + key + " there"});
  }
}

}  // namespace

Findings CheckSettings() {
  Findings findings;
  for (const char* const* file : kSettingsFiles) {
    const FileText read = ReadText(*file);
    if (!read.problem.empty()) {
      findings.push_back({kSettings, std::string(*file) + " cannot be read: " + read.problem,
                          "put a file there that packctl may read, or none"});
    }
    CheckLines(*file, read.text.value_or(""), findings);
  }
  const auto facts = updater::KOSHelper::Create();
  const std::string server = facts->GetPackUpdateServerUrl();
  if (server.empty()) {
    findings.push_back({kSettings, "no update server is set",
                        std::string("set ") + common::kPackUpdateServer + " in " + path::kPkgSetting});
  } else if (SchemeOf(server).empty()) {
    findings.push_back({kSettings, "the update server's address is none of http or https: " + ShownLink(server),
                        std::string("correct ") + common::kPackUpdateServer});
  }
  for (const KnownSetting& setting : KnownSettings()) {
    if (setting.is_valid != nullptr) {
      CheckValue(setting, findings);
    }
  }
  CheckCaFile(findings);
  CheckPasswordOfProxy(findings);
  CheckSupport(findings);
  CheckIdentity(kPackageInfoPath, common::kVersion, facts->GetVersionFromPath(kPackageInfoPath), findings);
  CheckIdentity(common::kDefaultOrbaInfoPath, common::kUnique, facts->GetUnique(), findings);
  CheckIdentity(common::kDefaultVersionPath, common::kMajorVersion, facts->GetMajorVersion(), findings);
  CheckIdentity(common::kDefaultVersionPath, common::kMinorVersion, facts->GetMinorVersion(), findings);
  CheckIdentity(common::kDefaultVersionPath, common::kBuildNumber, facts->GetBuildNumber(), findings);
  return findings;
}

}  // namespace orbamira::packctl
