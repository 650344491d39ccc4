#include "updater/health_record.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/constants.h"
#include "platform/json/json_line.h"
#include "platform/json/json_object.h"
#include "platform/log.h"
#include "platform/orba_core_wrapper.h"
#include "platform/posix/atomic_file.h"
#include "platform/posix/file_status.h"
#include "platform/posix/files.h"
#include "platform/posix/unique_fd.h"
#include "platform/version.h"
#include "updater/json_text.h"

namespace orbamira::updater {
namespace {

constexpr const char* kRejected = "rejected";
constexpr const char* kVersion = "version";
constexpr const char* kReason = "reason";
constexpr const char* kTime = "time";
constexpr mode_t kMode = 0644;

Json::Value ToJson(const std::vector<RejectedVersion>& versions) {
  Json::Value json;
  json[kRejected] = Json::arrayValue;
  for (const RejectedVersion& rejected : versions) {
    Json::Value& entry = json[kRejected].append(Json::objectValue);
    entry[kVersion] = rejected.version;
    entry[kReason] = rejected.reason;
    entry[kTime] = Json::Int64{rejected.time};
  }
  return json;
}

std::vector<RejectedVersion> FromJson(const Json::Value& list) {
  std::vector<RejectedVersion> versions;
  for (const Json::Value& entry : list.isArray() ? list : Json::Value(Json::arrayValue)) {
    if (entry.isObject() && entry[kVersion].isString()) {
      const std::time_t time = entry[kTime].isInt64() ? static_cast<std::time_t>(entry[kTime].asInt64()) : 0;
      versions.push_back({TextOf(entry[kVersion]), TextOf(entry[kReason]), time});
    }
  }
  return versions;
}

bool IsSameVersion(const std::string& left, const std::string& right) {
  return !IsNewVersion(left, right) && !IsNewVersion(right, left);
}

// Empty when there is no such file.
std::optional<PackId> NamedIn(const std::string& info) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(StatusOf(info, error))) {
    return std::nullopt;
  }
  wrapper::OrbaCoreWrapper core;
  return PackId{core.GetKeyValue(info, param::kPackage), core.GetKeyValue(info, common::kVersion)};
}

// As the information file of a pack has it.
std::string InfoText(const PackId& pack) {
  return std::string(param::kPackage) + "=\"" + pack.package + "\"\n" + param::kVersion + "=\"" + pack.version + "\"\n";
}

}  // namespace

std::optional<PackId> PackIn(const std::string& folder) { return NamedIn(folder + "/INFO"); }

bool Rejections::Has(const std::string& version) const {
  return std::ranges::any_of(all_, [&](const RejectedVersion& one) { return IsSameVersion(one.version, version); });
}

void Rejections::Add(RejectedVersion version) {
  constexpr std::size_t kMost = 16;
  std::erase_if(all_, [&](const RejectedVersion& one) { return IsSameVersion(one.version, version.version); });
  all_.push_back(std::move(version));
  if (all_.size() > kMost) {
    all_.erase(all_.begin());
  }
}

bool Rejections::Forget(const std::string& version) {
  return std::erase_if(all_, [&](const RejectedVersion& one) { return !IsNewVersion(version, one.version); }) > 0;
}

Rejections Rejections::Read() {
  const UniqueFd file = OpenFile(path::kHealthFile, O_RDONLY);
  const std::optional<std::string> text = file.valid() ? ReadUpTo(file.get(), kJsonTextLimit) : std::nullopt;
  const std::optional<Json::Value> json = text ? ParseJsonObject(*text) : std::nullopt;
  if (text && !json) {
    ORBAMIRA_LOG_ERROR("%s is damaged and counts as empty", path::kHealthFile);
  }
  Rejections rejections;
  rejections.all_ = json ? FromJson((*json)[kRejected]) : std::vector<RejectedVersion>();
  return rejections;
}

void Rejections::Write() const {
  static_cast<void>(ReplaceFile(path::kHealthFile, JsonLine(ToJson(all_)), kMode, Durability::kDurable));
}

std::optional<PackId> HealthyPack() { return NamedIn(path::kHealthyPackFile); }

// In place, without a moment at which the file is missing: a missing note counts as one for the installed pack.
void NoteHealthyPack(const PackId& pack) try {
  const UniqueFd file = OpenFile(path::kHealthyPackFile, O_WRONLY | O_CREAT | O_NOFOLLOW, kMode);
  if (!file.valid()) {
    ThrowErrno(path::kHealthyPackFile);
  }
  const std::string text = InfoText(pack);
  WriteFully(file.get(), text.data(), text.size(), path::kHealthyPackFile);
  if (ftruncate(file.get(), static_cast<off_t>(text.size())) != 0) {
    ThrowErrno(path::kHealthyPackFile);
  }
} catch (const std::system_error& error) {
  ORBAMIRA_LOG_ERROR("Failed to note the healthy pack: %s", error.what());
}

void EnsureHealthyPackNote() {
  if (!std::filesystem::exists(StatusOf(path::kHealthyPackFile))) {
    const std::string text = InfoText(PackIn(path::kPackFolderPath).value_or(PackId()));
    static_cast<void>(ReplaceFile(path::kHealthyPackFile, text, kMode, Durability::kDurable));
  }
}

}  // namespace orbamira::updater
