#include "tools/packctl/record/answered_check.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <string>
#include <utility>

#include "platform/constants.h"
#include "platform/json/json_line.h"
#include "platform/json/json_object.h"
#include "platform/json/json_values.h"
#include "platform/orba_sdk_wrapper.h"
#include "platform/posix/files.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::packctl {
namespace {

OtherReleases ReadOthers(const Json::Value& note) {
  OtherReleases others{.withdrawn = TextOf(note["withdrawn"])};
  const Json::Value& staged = note["staged"];
  if (staged.isObject() && staged["version"].isString() && staged["rollout"].isNumeric()) {
    others.staged = {.version = staged["version"].asString(), .percent = staged["rollout"].asDouble()};
  }
  return others;
}

std::string NoteFile() { return std::filesystem::path(kDownloadFolder).parent_path() / "checked"; }

// Both files have the clock of the kernel, which is finer than the seconds that entries of the history have.
bool HistoryIsNewerThan(const timespec& noted) {
  struct stat history {};
  const auto key = [](const timespec& time) { return std::pair(time.tv_sec, time.tv_nsec); };
  return stat(path::kHistoryFile, &history) == 0 && key(noted) < key(history.st_mtim);
}

}  // namespace

void NoteAnsweredCheck(const std::string& version, bool is_news, const OtherReleases& others) {
  constexpr mode_t kMode = 0644;
  static_cast<void>(wrapper::OrbaSDKWrapper().MakeDirectory(std::filesystem::path(NoteFile()).parent_path()));
  const UniqueFd fd(
      open(NoteFile().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kMode));
  if (!fd.valid()) {
    return;
  }
  Json::Value note;
  note["version"] = version;
  note["is_news"] = is_news;
  note["staged"] = StagedReleaseJson(others.staged);
  note["withdrawn"] = others.withdrawn;
  const std::string line = JsonLine(note);
  // On a full disk the time alone is noted.
  const ssize_t written = write(fd.get(), line.data(), line.size());
  static_cast<void>(written);
  static_cast<void>(futimens(fd.get(), nullptr));
}

std::optional<AnsweredCheck> ReadAnsweredCheck() try {
  constexpr std::size_t kMost = 4096;
  const UniqueFd fd = OpenFile(NoteFile(), O_RDONLY);
  const std::optional<std::string> text = fd.valid() ? ReadUpTo(fd.get(), kMost) : std::nullopt;
  if (!text) {
    return std::nullopt;
  }
  const timespec noted = Stat(fd.get(), NoteFile()).st_mtim;
  AnsweredCheck check{.time = noted.tv_sec, .is_last = !HistoryIsNewerThan(noted)};
  const Json::Value note = ParseJsonObject(*text).value_or(Json::objectValue);
  if (note["version"].isString() && note["is_news"].isBool()) {
    check.version = note["version"].asString();
    check.is_news = note["is_news"].asBool();
    check.others = ReadOthers(note);
  }
  return check;
} catch (const std::exception&) {
  return std::nullopt;  // what stands there is no note
}

Json::Value StagedReleaseJson(const std::optional<StagedRelease>& release) {
  Json::Value json;
  if (release) {
    json["version"] = release->version;
    json["rollout"] = release->percent;
  }
  return json;
}

Json::Value AnsweredCheckJson(const std::optional<AnsweredCheck>& check) {
  Json::Value json;
  if (check) {
    json["time"] = Json::Int64{check->time};
    json["version"] = NullIfEmpty(check->version);
    json["is_news"] = check->is_news;
    json["staged"] = StagedReleaseJson(check->others.staged);
    json["withdrawn"] = NullIfEmpty(check->others.withdrawn);
  }
  return json;
}

}  // namespace orbamira::packctl
