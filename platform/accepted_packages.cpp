#include "platform/accepted_packages.h"

#include <charconv>
#include <cstdint>

#include "platform/constants.h"
#include "platform/posix/atomic_file.h"
#include "platform/settings_file.h"

namespace orbamira {
namespace {

constexpr const char* kMinimum = "minimum";
constexpr const char* kNewestSignature = "newest_signature";

std::time_t ParseTime(const std::string& text) {
  std::int64_t time = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), time);
  return error == std::errc() && end == text.data() + text.size() && time > 0 ? static_cast<std::time_t>(time) : 0;
}

}  // namespace

AcceptedPackages ReadAcceptedPackages() {
  const std::string file = path::kAcceptedPackagesFile;
  return {.minimum = ReadSetting(file, kMinimum), .newest_signature = ParseTime(ReadSetting(file, kNewestSignature))};
}

void SaveAcceptedPackages(const AcceptedPackages& accepted) {
  constexpr mode_t kMode = 0644;
  const std::string text = std::string(kMinimum) + "=\"" + accepted.minimum + "\"\n" + kNewestSignature + "=\"" +
                           std::to_string(accepted.newest_signature) + "\"\n";
  ReplaceFile(path::kAcceptedPackagesFile, text, kMode, Durability::kDurable);
}

}  // namespace orbamira
