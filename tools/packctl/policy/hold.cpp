#include "tools/packctl/policy/hold.h"

#include "platform/constants.h"
#include "platform/posix/sync_folder.h"
#include "tools/packctl/policy/state_file.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kUntil = "until";

std::optional<std::time_t> ParseAs(const std::string& text, const char* form) {
  std::tm parts{};
  const char* const stop = strptime(text.c_str(), form, &parts);
  if (stop == nullptr || *stop != '\0') {
    return std::nullopt;
  }
  parts.tm_isdst = -1;
  const int day = parts.tm_mday;
  const std::time_t time = std::mktime(&parts);
  return time != -1 && parts.tm_mday == day ? std::optional(time) : std::nullopt;  // the 31st of June is no day
}

}  // namespace

std::optional<Hold> ReadHold(std::time_t now) {
  const StateText kept = ReadStateFile(path::kHoldFile);
  if (!kept.exists) {
    return std::nullopt;
  }
  const Json::Value until = kept.object.value_or(Json::objectValue).get(kUntil, Json::Value());
  if (!until.isInt64()) {
    return Hold{};
  }
  return until.asInt64() > now ? std::optional(Hold{.until = until.asInt64()}) : std::nullopt;
}

bool IsHoldDamaged() {
  const StateText kept = ReadStateFile(path::kHoldFile);
  if (!kept.object || !kept.object->isMember(kUntil)) {
    return kept.exists;
  }
  const Json::Value& until = (*kept.object)[kUntil];
  return !until.isNull() && !until.isInt64();
}

void KeepHold(const Hold& hold) {
  Json::Value json;
  json[kUntil] = hold.until ? Json::Value(Json::Int64{*hold.until}) : Json::Value();
  WriteStateFile(path::kHoldFile, json);
}

void EndHold() {
  RemoveStateFile(path::kHoldFile);
  SyncFolderOf(path::kHoldFile);  // one that a power cut brings back would keep updates away
}

std::optional<std::time_t> ParseDate(const std::string& text) {
  for (const char* const form : {"%Y-%m-%d", "%Y-%m-%d %H:%M"}) {
    if (const std::optional<std::time_t> time = ParseAs(text, form)) {
      return time;
    }
  }
  return std::nullopt;
}

}  // namespace orbamira::packctl
