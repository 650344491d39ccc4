#include "updater/status_record.h"

#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <tuple>

#include "platform/constants.h"
#include "platform/file_lock.h"
#include "platform/json/json_object.h"
#include "platform/posix/errors.h"
#include "platform/posix/file_status.h"
#include "platform/posix/unique_fd.h"
#include "updater/json_text.h"

namespace orbamira::updater {
namespace {

namespace keys = webapi::param;

auto Members(const StatusRecord& record) {
  return std::tie(record.status, record.new_pack_name, record.new_version, record.download_size_now,
                  record.download_size_total, record.install_step);
}

// The text of the store; empty when there is no store.
std::optional<std::string> ReadStore() {
  std::optional<store::FileLock> lock;
  if (std::filesystem::exists(StatusOf(path::kPackStatusLock))) {
    lock.emplace(path::kPackStatusLock);
  }
  const UniqueFd file = OpenFile(path::kPackStatusFile, O_RDONLY);
  if (!file.valid()) {
    if (errno == ENOENT) {
      return std::nullopt;
    }
    ThrowErrno(std::string("cannot use the status store ") + path::kPackStatusFile);
  }
  return ReadUpTo(file.get(), kJsonTextLimit + 1).value_or("");  // fails for a folder, which can be opened but not read
}

// The text of the key; empty when there is none.
std::string TextOf(const Json::Value& store, const char* key) {
  const Json::Value text = store.get(key, "");
  if (!text.isString()) {
    throw std::invalid_argument(key);
  }
  return text.asString();
}

std::int64_t SizeOf(const Json::Value& store, const char* key) {
  return store.isMember(key) ? std::stoll(TextOf(store, key)) : 0;
}

StatusRecord Decoded(const std::string& text) {
  const auto store = text.size() > kJsonTextLimit ? std::nullopt : ParseJsonObject(text);
  if (!store) {
    throw std::invalid_argument("no JSON object");
  }
  StatusRecord record;
  if (store->isMember(keys::kStatus)) {
    record.status = PackStatusFromText(TextOf(*store, keys::kStatus));
  }
  record.new_pack_name = TextOf(*store, keys::kNewPackName);
  record.new_version = TextOf(*store, keys::kNewVersion);
  record.download_size_now = SizeOf(*store, keys::kDownloadSizeNow);
  record.download_size_total = SizeOf(*store, keys::kDownloadSizeTotal);
  record.install_step = TextOf(*store, keys::kInstallStep);
  static_cast<void>(InstallStepFromText(record.install_step));  // throws for a text that is no step
  return record;
}

}  // namespace

bool operator==(const StatusRecord& left, const StatusRecord& right) { return Members(left) == Members(right); }

bool operator!=(const StatusRecord& left, const StatusRecord& right) { return !(left == right); }

StatusRecord ReadStatusRecord() {
  const std::optional<std::string> text = ReadStore();
  if (!text) {
    return {};
  }
  try {
    return Decoded(*text);
  } catch (const std::logic_error&) {
    throw std::domain_error("the recorded status cannot be read");
  }
}

bool IsUnderWay(PackStatus status) {
  return status == kStatusDownloading || status == kStatusInstalling || status == kStatusDownloadingInstalling;
}

}  // namespace orbamira::updater
