#include "platform/key_value_store.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
#include "platform/posix/errors.h"
#include "platform/posix/older_systems.h"
#include "platform/posix/sector_file.h"
#include "platform/posix/sync_folder.h"
#include "platform/posix/unique_fd.h"

namespace orbamira::store {
namespace {

using Values = std::map<std::string, std::string>;

// A bound on what a damaged or hostile file can make us read. What is written keeps to it, so that it can be read.
constexpr std::size_t kMaxFileSize = kMaxStoreSize;

constexpr mode_t kFileMode = 0644;

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

bool IsSameFile(const struct stat& left, const struct stat& right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

bool IsAt(const std::string& path, const struct stat& status) {
  struct stat now {};
  return stat(path.c_str(), &now) == 0 && IsSameFile(now, status);
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
    return Padded(std::move(text).str());
  }

 private:
  // With a line's end, and with blanks up to a sector, so that the next text may take its place.
  static std::string Padded(std::string text) {
    text.resize(std::max(text.size(), kSectorSize - 1), ' ');
    return text + '\n';
  }

  std::unique_ptr<Json::StreamWriter> writer_;
};

// What was last seen of the file. That version is kept open: as long as it is, its inode number belongs to no other
// file, so a stat that finds the same number finds the same file.
struct Seen {
  UniqueFd fd;
  struct stat status {};  // all zeros, as nothing else is, when the file is missing
  std::string text;
  Values values;
  bool writable = false;  // a file of one sector, open for writing, whose name a power cut cannot take back
};

}  // namespace

// The file and what was last seen of it. A text that fits into a sector is written in place, so that it costs one flush
// of the disk; any other, and whatever fails in place, takes the road of a new file. Hidden, as its owner is not: no
// host relies on it.
class __attribute__((visibility("hidden"))) FileKeyValueStore::File {
 public:
  explicit File(std::string path) : path_(std::move(path)) {}

  /// Makes an empty store unless there is a file.
  void MakeIfMissing();

  /// What the file holds now; empty when it is missing.
  const Values& Read();

  /// With kVisible a power cut may bring back what was there before, until the next write with kDurable.
  void Write(Values values, Durability durability);

 private:
  void Load();
  void TakeIn(UniqueFd fd, const struct stat& status, bool writable);
  void SetAside(UniqueFd broken, const struct stat& status, std::string text);
  [[nodiscard]] bool MoveAside(const std::string& aside, const struct stat& status) const;
  [[nodiscard]] bool PutEmptyIfMissing();
  void RememberWritten(UniqueFd fd, std::string text, Values values, bool writable);
  [[nodiscard]] bool IsUnchanged(const struct stat& now) const;
  [[nodiscard]] bool MayBeOverwritten() const;
  [[nodiscard]] bool OpenForWriting();

  std::string path_;
  Formatter formatter_;
  Seen seen_;
};

void FileKeyValueStore::File::MakeIfMissing() {
  Read();
  if (seen_.fd.valid()) {
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
    ThrowErrno("look at " + path_);
  }
  if (!IsUnchanged(now)) {
    if (seen_.writable && IsSameFile(now, seen_.status) && IsSectorFile(now)) {
      TakeIn(std::move(seen_.fd), now, true);
    } else {
      Load();
    }
  }
  return seen_.values;
}

// Of a file that is written in place the text tells, because two writes within one tick of the clock leave the same
// times. The times tell of an editor that writes into a larger one, and of a file system that has made a copy for
// those who write (overlayfs), which our descriptor does not lead to.
bool FileKeyValueStore::File::IsUnchanged(const struct stat& now) const {
  const struct stat& then = seen_.status;
  if (!IsSameFile(now, then) || now.st_size != then.st_size) {
    return false;
  }
  const bool same_time = now.st_ctim.tv_sec == then.st_ctim.tv_sec && now.st_ctim.tv_nsec == then.st_ctim.tv_nsec;
  return (same_time || seen_.writable) && (!IsSectorFile(now) || HoldsSector(seen_.fd.get(), seen_.text));
}

void FileKeyValueStore::File::Load() {
  UniqueFd fd = OpenFile(path_, O_RDONLY);
  if (!fd.valid() && errno == ENXIO) {
    fd = OpenFile(path_, O_PATH);  // a socket, which cannot be read
  }
  if (!fd.valid()) {
    if (!IsMissing(errno)) {
      ThrowErrno("open " + path_);
    }
    seen_ = {};
    return;
  }
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) {
    ThrowErrno("look at " + path_);
  }
  TakeIn(std::move(fd), status, false);
}

void FileKeyValueStore::File::TakeIn(UniqueFd fd, const struct stat& status, bool writable) {
  std::optional<std::string> text = ReadUnmixed(fd.get(), kMaxFileSize + 1);
  if (std::optional<Values> values = text.has_value() ? Parse(*text) : std::nullopt) {
    seen_ = {std::move(fd), status, *std::move(text), *std::move(values), writable};
  } else {
    SetAside(std::move(fd), status, std::move(text).value_or(""));
  }
}

void FileKeyValueStore::File::SetAside(UniqueFd broken, const struct stat& status, std::string text) {
  if (!IsAt(path_, status)) {
    Load();  // another process has set it aside, and what stands there now is good
    return;
  }
  const std::string aside = path_ + ".broken";
  if (!MoveAside(aside, status)) {
    const int error = errno;
    if (!IsAt(path_, status)) {
      Load();  // as above, only later
      return;
    }
    ORBAMIRA_LOG_ERROR("Failed to set aside broken store %s: %s", path_.c_str(),
                       std::generic_category().message(error).c_str());
    seen_ = {std::move(broken), status, std::move(text), {}, false};
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
  std::string text = formatter_.Format({});
  UniqueFd made = MakeFile(path_, text, kFileMode);
  if (!made.valid()) {
    return false;
  }
  RememberWritten(std::move(made), std::move(text), {}, false);
  return true;
}

void FileKeyValueStore::File::Write(Values values, Durability durability) {
  std::string text = formatter_.Format(values);
  if (text.size() > kMaxFileSize) {
    ThrowErrno("write " + path_, EFBIG);
  }
  if (text.size() == kSectorSize && MayBeOverwritten() && (seen_.writable || OpenForWriting()) &&
      OverwriteSector(seen_.fd.get(), seen_.text, text, durability)) {
    seen_.text = std::move(text);
    seen_.values = std::move(values);
    return;
  }
  // Durable in any case: who writes in place later relies on the file's name.
  UniqueFd placed = ReplaceFile(path_, text, kFileMode, Durability::kDurable);
  const bool writable = text.size() == kSectorSize;
  RememberWritten(std::move(placed), std::move(text), std::move(values), writable);
}

// Whether the file differs in nothing but its text from the one that would take its place.
bool FileKeyValueStore::File::MayBeOverwritten() const {
  struct stat now {};
  return seen_.text.size() == kSectorSize && lstat(path_.c_str(), &now) == 0 && IsSameFile(now, seen_.status) &&
         IsSectorFile(now) && now.st_nlink == 1 && (now.st_mode & 07777) == kFileMode && now.st_uid == geteuid();
}

// Who may not put a file in this one's place does not change this one either.
bool FileKeyValueStore::File::OpenForWriting() {
  UniqueFd fd = OpenFile(path_, O_RDWR | O_NOFOLLOW);
  struct stat status {};
  const std::filesystem::path folder = std::filesystem::path(path_).parent_path() / ".";
  if (!fd.valid() || fstat(fd.get(), &status) != 0 || !IsSameFile(status, seen_.status) ||
      faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    return false;
  }
  SyncFolderOf(path_);  // whoever put the file there may have been killed before
  seen_.fd = std::move(fd);
  seen_.writable = true;
  return true;
}

// Only now: the rename has changed the file's time.
void FileKeyValueStore::File::RememberWritten(UniqueFd fd, std::string text, Values values, bool writable) {
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) {
    ThrowErrno("look at " + path_);
  }
  seen_ = {std::move(fd), status, std::move(text), std::move(values), writable};
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
  file_->Write(std::move(values), Durability::kDurable);
}

void FileKeyValueStore::Clear() {
  file_->Read();  // sets a broken file aside rather than losing it
  file_->Write({}, Durability::kVisible);
}

}  // namespace orbamira::store
