#include "platform/key_value_store.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <system_error>
#include <utility>

#include "platform/folder_of.h"
#include "platform/json/json_object.h"
#include "platform/log.h"
#include "platform/posix/atomic_file.h"
#include "platform/posix/older_systems.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::store {
namespace {

using Values = std::map<std::string, std::string>;

// A bound on what a damaged or hostile file can make us read. What is written keeps to it, so that it can be read.
constexpr std::size_t kMaxFileSize = kMaxStoreSize;

constexpr mode_t kFileMode = 0644;

[[noreturn]] void Throw(int error, const std::string& what, const std::string& path) {
  throw std::system_error(error, std::generic_category(), what + " " + path);
}

std::optional<Values> Parse(const std::string& text) {
  if (text.size() > kMaxFileSize) {
    return std::nullopt;
  }
  const std::optional<Json::Value> object = ParseJsonObject(text);
  if (!object) {
    return std::nullopt;
  }
  Values values;
  for (auto member = object->begin(); member != object->end(); ++member) {
    if (!member->isString()) {
      return std::nullopt;
    }
    values.emplace(member.name(), member->asString());
  }
  return values;
}

// Also a link that leads nowhere or round in a circle: the first write puts a file in its place.
bool IsMissing(int error) { return error == ENOENT || error == ELOOP; }

bool IsAt(const std::string& path, const struct stat& status) {
  struct stat now {};
  return stat(path.c_str(), &now) == 0 && now.st_dev == status.st_dev && now.st_ino == status.st_ino;
}

// Writes a store's text; kept for the life of a store, because making one takes as long as using it.
class Formatter {
 public:
  Formatter() {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;  // otherwise bytes that are no UTF-8 would not come back as they were
    writer_.reset(builder.newStreamWriter());
  }

  [[nodiscard]] std::string Format(const Values& values) const {
    Json::Value root(Json::objectValue);
    for (const auto& [key, value] : values) {
      root[key] = value;
    }
    std::ostringstream text;
    writer_->write(root, &text);
    text << '\n';
    return std::move(text).str();
  }

 private:
  std::unique_ptr<Json::StreamWriter> writer_;
};

}  // namespace

// The file and the content last seen in it. That version is kept open: as long as it is, its inode number belongs to no
// other file, so a stat that finds the same number finds the same file, and nothing needs to be read. Size and time of
// change tell of those who write into the file in place, as an administrator's editor may.
class FileKeyValueStore::File {
 public:
  explicit File(std::string path) : path_(std::move(path)) {}

  /// Makes an empty store unless there is a file.
  void MakeIfMissing();

  /// What the file holds now; empty when it is missing.
  const Values& Read();

  void Replace(Values values, Durability durability);

 private:
  void Load();
  void SetAside(UniqueFd broken, const struct stat& status);
  [[nodiscard]] bool MoveAside(const std::string& aside, const struct stat& status) const;
  [[nodiscard]] bool PutEmptyIfMissing();
  void Remember(UniqueFd fd, const struct stat& status, Values values);
  void RememberWritten(UniqueFd fd, Values values);
  [[nodiscard]] bool IsSeen(const struct stat& now) const;

  std::string path_;
  Formatter formatter_;
  UniqueFd seen_;
  struct stat seen_status_ {};
  Values values_;
};

void FileKeyValueStore::File::MakeIfMissing() {
  Read();
  if (seen_.valid()) {
    return;
  }
  MakeFolderOf(path_);
  if (!PutEmptyIfMissing()) {
    Load();
  }
}

const Values& FileKeyValueStore::File::Read() {
  struct stat now {};
  if (stat(path_.c_str(), &now) != 0 && !IsMissing(errno)) {
    Throw(errno, "look at", path_);
  }
  if (!IsSeen(now)) {
    Load();
  }
  return values_;
}

void FileKeyValueStore::File::Load() {
  UniqueFd fd = OpenFile(path_, O_RDONLY);
  if (!fd.valid() && errno == ENXIO) {
    fd = OpenFile(path_, O_PATH);  // a socket, which cannot be read
  }
  if (!fd.valid()) {
    if (!IsMissing(errno)) {
      Throw(errno, "open", path_);
    }
    Remember(UniqueFd(), {}, {});
    return;
  }
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) {
    Throw(errno, "look at", path_);
  }
  const std::optional<std::string> text = ReadUpTo(fd.get(), kMaxFileSize + 1);
  if (std::optional<Values> values = text.has_value() ? Parse(*text) : std::nullopt) {
    Remember(std::move(fd), status, *std::move(values));
  } else {
    SetAside(std::move(fd), status);
  }
}

void FileKeyValueStore::File::SetAside(UniqueFd broken, const struct stat& status) {
  if (!IsAt(path_, status)) {
    Load();  // another process has set it aside, and what stands there now is good
    return;
  }
  const std::string aside = path_ + ".broken";
  if (!MoveAside(aside, status)) {
    ORBAMIRA_LOG_ERROR("Failed to set aside broken store %s: %s", path_.c_str(),
                       std::generic_category().message(errno).c_str());
    Remember(std::move(broken), status, {});
    return;
  }
  if (!IsAt(aside, status)) {
    // Another process has put a good file in place since we looked: back it goes, unless there is one already.
    static_cast<void>(RenameToFree(AT_FDCWD, aside, path_));
    Load();
    return;
  }
  ORBAMIRA_LOG_ERROR("Set aside broken store %s", path_.c_str());
  if (!PutEmptyIfMissing()) {
    Load();
  }
}

// A folder and a file cannot replace each other, nor a folder one that is not empty: what was set aside earlier then
// goes first. The newest is what tells most.
bool FileKeyValueStore::File::MoveAside(const std::string& aside, const struct stat& status) const {
  if (std::rename(path_.c_str(), aside.c_str()) == 0) {
    return true;
  }
  const bool in_the_way = errno == EISDIR || errno == ENOTDIR || errno == ENOTEMPTY || errno == EEXIST;
  if (!in_the_way || !IsAt(path_, status)) {
    return false;
  }
  std::error_code error;
  std::filesystem::remove_all(aside, error);
  return std::rename(path_.c_str(), aside.c_str()) == 0;
}

// Never over a file that another process has put there meanwhile.
bool FileKeyValueStore::File::PutEmptyIfMissing() {
  UniqueFd made = MakeFile(path_, formatter_.Format({}), kFileMode);
  if (!made.valid()) {
    return false;
  }
  RememberWritten(std::move(made), {});
  return true;
}

void FileKeyValueStore::File::Replace(Values values, Durability durability) {
  const std::string text = formatter_.Format(values);
  if (text.size() > kMaxFileSize) {
    Throw(EFBIG, "write", path_);
  }
  RememberWritten(ReplaceFile(path_, text, kFileMode, durability), std::move(values));
}

void FileKeyValueStore::File::Remember(UniqueFd fd, const struct stat& status, Values values) {
  seen_ = std::move(fd);
  seen_status_ = status;
  values_ = std::move(values);
}

// Only now: the rename has changed the file's time.
void FileKeyValueStore::File::RememberWritten(UniqueFd fd, Values values) {
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) {
    Throw(errno, "look at", path_);
  }
  Remember(std::move(fd), status, std::move(values));
}

// A missing file is all zeros, on both sides.
bool FileKeyValueStore::File::IsSeen(const struct stat& now) const {
  return now.st_dev == seen_status_.st_dev && now.st_ino == seen_status_.st_ino &&
         now.st_size == seen_status_.st_size && now.st_ctim.tv_sec == seen_status_.st_ctim.tv_sec &&
         now.st_ctim.tv_nsec == seen_status_.st_ctim.tv_nsec;
}

std::unique_ptr<IKeyValueStore> FileKeyValueStore::Create(const std::string& path) {
  try {
    auto file = std::make_unique<File>(path);
    file->MakeIfMissing();
    return std::unique_ptr<IKeyValueStore>(new FileKeyValueStore(std::move(file)));
  } catch (const std::system_error& error) {
    ORBAMIRA_LOG_ERROR("Cannot use the store: %s", error.what());
    return nullptr;
  }
}

FileKeyValueStore::FileKeyValueStore(std::unique_ptr<File> file) : file_(std::move(file)) {}

FileKeyValueStore::~FileKeyValueStore() = default;

bool FileKeyValueStore::Has(const std::string& key) { return file_->Read().contains(key); }

std::string FileKeyValueStore::Get(const std::string& key) {
  const Values& values = file_->Read();
  const auto found = values.find(key);
  return found == values.end() ? "" : found->second;
}

void FileKeyValueStore::Set(const std::string& key, const std::string& value) {
  Values values = file_->Read();
  values[key] = value;
  file_->Replace(std::move(values), Durability::kDurable);
}

void FileKeyValueStore::Clear() {
  file_->Read();  // sets a broken file aside rather than losing it
  file_->Replace({}, Durability::kVisible);
}

}  // namespace orbamira::store
