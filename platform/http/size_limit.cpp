#include "platform/http/size_limit.h"

#include <cerrno>
#include <charconv>
#include <optional>
#include <system_error>

#include "platform/constants.h"
#include "platform/posix/errors.h"
#include "platform/settings_file.h"

namespace orbamira {
namespace {

constexpr std::int64_t kDefaultLimit = 16LL << 30;

}  // namespace

SizeLimit SizeLimitFromSettings() {
  SizeLimit limit{kDefaultLimit, std::string("the ") + common::kDownloadLimit + " of the settings"};
  if (const std::optional<Setting> setting = ReadOwnOrMakersSetting(common::kDownloadLimit)) {
    const char* const end = setting->value.data() + setting->value.size();
    const auto [stop, error] = std::from_chars(setting->value.data(), end, limit.bytes);
    if (error != std::errc() || stop != end || limit.bytes < 0) {
      ThrowErrno(setting->file + ": " + common::kDownloadLimit + " is not a number of bytes: " + setting->value,
                 EINVAL);
    }
  }
  return limit;
}

void ExpectWithin(const SizeLimit& limit, std::int64_t size) {
  if (size > limit.bytes) {
    ThrowErrno("the file is over " + std::to_string(limit.bytes) + " bytes, " + limit.source, EFBIG);
  }
}

}  // namespace orbamira
