#include "platform/settings_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include "platform/constants.h"
#include "platform/log.h"
#include "platform/posix/trust.h"
#include "platform/posix/unique_fd.h"
#include "platform/settings_line.h"

namespace orbamira {
namespace {

// More than any settings file has, and little enough to read it on every call.
constexpr std::size_t kMaxSettingsSize = 1UL << 20U;

std::string_view TakeLine(std::string_view& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

// The complete lines in the part of the file that we read; empty when the file cannot be read or trusted.
std::string ReadWholeLines(const std::string& path) {
  const UniqueFd file = OpenFile(path, O_RDONLY);
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return "";
  }
  if (const std::string reason = WhyDistrusted(file.get(), "it"); !reason.empty()) {
    ORBAMIRA_LOG_ERROR("Ignored %s: %s", path.c_str(), reason.c_str());
    return "";
  }
  std::string text = ReadUpTo(file.get(), kMaxSettingsSize).value_or("");
  if (text.size() == kMaxSettingsSize) {
    text.resize(text.rfind('\n') + 1);  // half a value is worse than none
  }
  return text;
}

}  // namespace

std::string ReadSetting(const std::string& file, const std::string& key) {
  const std::string text = ReadWholeLines(file);
  std::string_view rest = text;
  while (!rest.empty()) {
    if (const auto line = ParseSettingLine(TakeLine(rest)); line && line->key == key) {
      return std::string(line->value);
    }
  }
  return "";
}

std::optional<Setting> ReadOwnOrMakersSetting(const std::string& key) {
  for (const char* const file : {path::kPkgSetting, path::kDefaultPkgSetting}) {
    if (std::string value = ReadSetting(file, key); !value.empty()) {
      return Setting{std::move(value), file};
    }
  }
  return std::nullopt;
}

}  // namespace orbamira
