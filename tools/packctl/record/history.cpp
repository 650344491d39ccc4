#include "tools/packctl/record/history.h"

#include <fcntl.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string_view>

#include "platform/constants.h"
#include "platform/json/json_object.h"
#include "platform/json/json_values.h"
#include "platform/posix/files.h"
#include "platform/posix/sync_folder.h"

namespace orbamira::packctl {
namespace {

constexpr std::size_t kMaxFileSize = 256UL * 1024;
constexpr std::size_t kMaxTextSize = 500;
constexpr std::size_t kMaxErrors = 20;
static_assert((kMaxErrors + 4) * kMaxTextSize * 6 < kMaxFileSize,
              "an entry fits into a file, every byte of it escaped");

std::string OlderFile() { return std::string(path::kHistoryFile) + ".1"; }

Json::Value ToJson(const std::optional<PackIdentity>& pack) {
  Json::Value json;
  if (pack) {
    json["package"] = NullIfEmpty(pack->package.substr(0, kMaxTextSize));
    json["version"] = NullIfEmpty(pack->version.substr(0, kMaxTextSize));
  }
  return json;
}

// ASCII alone, so that bytes from outside cannot make the line anything but JSON.
std::string Line(const HistoryEntry& entry) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, entry.ToJson()) + "\n";
}

UniqueFd Open(const std::string& path, int flags) {
  // Without waiting: what stands there may be a pipe.
  UniqueFd file(open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0640));
  if (!file.valid() && errno != ENOENT) {
    ThrowErrno(path);
  }
  if (file.valid() && !S_ISREG(Stat(file.get(), path).st_mode)) {
    throw std::system_error(EINVAL, std::generic_category(), path + " is not a file");
  }
  return file;
}

UniqueFd OpenToAppend() {
  UniqueFd file = Open(path::kHistoryFile, O_RDWR | O_APPEND | O_CREAT);
  if (!file.valid()) {
    ThrowErrno(path::kHistoryFile);
  }
  return file;
}

std::size_t SizeOf(const UniqueFd& file) {
  return static_cast<std::size_t>(Stat(file.get(), path::kHistoryFile).st_size);
}

bool EndsInsideALine(const UniqueFd& file, std::size_t size) {
  char last = '\n';
  return size > 0 && pread(file.get(), &last, 1, static_cast<off_t>(size - 1)) == 1 && last != '\n';
}

void WriteOrTakeBack(const UniqueFd& file, std::size_t size, const std::string& line) {
  try {
    WriteFully(file.get(), line.data(), line.size(), path::kHistoryFile);
  } catch (const std::system_error&) {
    // Should this fail too, the next entry begins on a line of its own all the same.
    static_cast<void>(ftruncate(file.get(), static_cast<off_t>(size)) == 0);
    throw;
  }
}

// The end of the file, and more of it than we write: whatever else is there was put there by somebody else.
std::string ReadEnd(const UniqueFd& file, const std::string& path, off_t most = 4 * kMaxFileSize) {
  const off_t size = Stat(file.get(), path).st_size;
  if (size > most && lseek(file.get(), size - most, SEEK_SET) < 0) {
    ThrowErrno(path);
  }
  std::string text(static_cast<std::size_t>(std::min(size, most)), '\0');
  text.resize(ReadFully(file.get(), text.data(), text.size(), path));
  return text;
}

bool IsTextOrNull(const Json::Value& value) { return value.isString() || value.isNull(); }

bool IsPack(const Json::Value& value) {
  return value.isNull() || (value.isObject() && IsTextOrNull(value["package"]) && IsTextOrNull(value["version"]));
}

bool IsEntry(const Json::Value& value) {
  if (!value["time"].isInt64() || !value["duration_ms"].isInt64() || !value["command"].isString() ||
      !IsPack(value["from"]) || !IsPack(value["to"]) || !value["result"].isString() || !IsTextOrNull(value["status"]) ||
      !value["exit"].isInt() || !value["errors"].isArray() ||
      (!value["error"].isNull() && !FailureFromJson(value["error"]))) {  // older releases kept none
    return false;
  }
  return std::all_of(value["errors"].begin(), value["errors"].end(),
                     [](const Json::Value& error) { return error.isString(); });
}

std::optional<PackIdentity> PackFromJson(const Json::Value& json) {
  if (json.isNull()) {
    return std::nullopt;
  }
  return PackIdentity{json["package"].asString(), json["version"].asString()};
}

// Empty for a line that is no entry.
std::optional<HistoryEntry> EntryFromLine(std::string_view line) {
  const std::optional<Json::Value> object = ParseJsonObject(line);
  if (!object || !IsEntry(*object)) {
    return std::nullopt;
  }
  const Json::Value& json = *object;
  HistoryEntry entry{.time = json["time"].asInt64(),
                     .duration_ms = json["duration_ms"].asInt64(),
                     .command = json["command"].asString(),
                     .from = PackFromJson(json["from"]),
                     .to = PackFromJson(json["to"]),
                     .result = json["result"].asString(),
                     .status = json["status"].asString(),
                     .exit = json["exit"].asInt(),
                     .failure = FailureFromJson(json["error"])};
  for (const Json::Value& error : json["errors"]) {
    entry.errors.push_back(error.asString());
  }
  return entry;
}

void AddLines(std::string_view text, History& history) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (auto entry = EntryFromLine(line)) {
      history.entries.push_back(*std::move(entry));
    } else {
      ++history.damaged;
    }
  }
}

}  // namespace

std::vector<std::string> History::Problems() const {
  return damaged == 0 ? std::vector<std::string>()
                      : std::vector{"unreadable lines in the history, passed over: " + std::to_string(damaged)};
}

Json::Value HistoryEntry::ToJson() const {
  Json::Value json;
  json["time"] = Json::Int64{time};
  json["duration_ms"] = Json::Int64{duration_ms};
  json["command"] = command;
  json["from"] = packctl::ToJson(from);
  json["to"] = packctl::ToJson(to);
  json["result"] = result;
  json["status"] = NullIfEmpty(status);
  json["exit"] = exit;
  Json::Value& sentences = json["errors"] = Json::arrayValue;
  // The last ones tell what came of it.
  for (std::size_t i = errors.size() - std::min(errors.size(), kMaxErrors); i < errors.size(); ++i) {
    sentences.append(errors[i].substr(0, kMaxTextSize));
  }
  json["error"] = FailureJson(failure);
  if (failure) {
    json["error"]["message"] = failure->message.substr(0, kMaxTextSize);
  }
  return json;
}

void AppendToHistory(const HistoryEntry& entry) {
  std::string line = Line(entry);
  UniqueFd file = OpenToAppend();
  std::size_t size = SizeOf(file);
  if (size > 0 && size + line.size() > kMaxFileSize) {
    if (std::rename(path::kHistoryFile, OlderFile().c_str()) != 0) {
      ThrowErrno(OlderFile());
    }
    file = OpenToAppend();
    size = SizeOf(file);
  }
  if (EndsInsideALine(file, size)) {
    line.insert(line.begin(), '\n');
  }
  WriteOrTakeBack(file, size, line);
  if (fsync(file.get()) != 0) {
    ThrowErrno(path::kHistoryFile);
  }
  if (size == 0) {
    SyncFolderOf(path::kHistoryFile);
  }
}

std::optional<HistoryEntry> ReadNewestEntry() try {
  constexpr off_t kLongestEntry = kMaxFileSize / 2;
  for (const std::string& path : {std::string(path::kHistoryFile), OlderFile()}) {
    const UniqueFd file = Open(path, O_RDONLY);
    std::string text = file.valid() ? ReadEnd(file, path, kLongestEntry) : "";
    text.resize(text.find_last_not_of('\n') + 1);
    if (!text.empty()) {
      return EntryFromLine(std::string_view(text).substr(text.rfind('\n') + 1));
    }
  }
  return std::nullopt;
} catch (const std::exception&) {
  return std::nullopt;
}

History ReadHistory() {
  // The newer first: should it become the older one meanwhile, the same file is met twice and none is missed.
  const UniqueFd newer = Open(path::kHistoryFile, O_RDONLY);
  const UniqueFd older = Open(OlderFile(), O_RDONLY);
  History history;
  const bool same = newer.valid() && older.valid() &&
                    Stat(newer.get(), path::kHistoryFile).st_ino == Stat(older.get(), OlderFile()).st_ino;
  if (older.valid() && !same) {
    AddLines(ReadEnd(older, OlderFile()), history);
  }
  if (newer.valid()) {
    AddLines(ReadEnd(newer, path::kHistoryFile), history);
  }
  return history;
}

}  // namespace orbamira::packctl
