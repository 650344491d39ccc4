#include "platform/http/size_limit.h"

#include <cerrno>
#include <charconv>
#include <system_error>

#include "platform/constants.h"
#include "platform/posix/errors.h"
#include "platform/settings_file.h"

namespace orbamira {
namespace {

constexpr std::int64_t kDefaultLimit = 16LL << 30;

}  // namespace

SizeLimit SizeLimitFromSettings() {
  const std::string source = std::string("the ") + common::kDownloadLimit + " of the settings";
  for (const char* const settings : {path::kPkgSetting, path::kDefaultPkgSetting}) {
    const std::string text = ReadSetting(settings, common::kDownloadLimit);
    if (text.empty()) {
      continue;
    }
    std::int64_t bytes = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, bytes);
    if (error != std::errc() || stop != end || bytes < 0) {
      ThrowErrno(std::string(settings) + ": " + common::kDownloadLimit + " is not a number of bytes: " + text, EINVAL);
    }
    return {bytes, source};
  }
  return {kDefaultLimit, source};
}

void ExpectWithin(const SizeLimit& limit, std::int64_t size) {
  if (size > limit.bytes) {
    ThrowErrno("the file is over " + std::to_string(limit.bytes) + " bytes, " + limit.source, EFBIG);
  }
}

}  // namespace orbamira
