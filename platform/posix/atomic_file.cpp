#include "platform/posix/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "platform/posix/errors.h"
#include "platform/posix/files.h"
#include "platform/posix/older_systems.h"
#include "platform/posix/sync_folder.h"
#include "platform/posix/unique_fd.h"

namespace orbamira {

// The new content while it is not yet in place: a file beside its final name, so that rename stays on one file system.
class TemporaryFile {
 public:
  /// Under a name that no other file has.
  explicit TemporaryFile(const std::string& final_path)
      : final_path_(final_path),
        path_(final_path + ".XXXXXX"),
        fd_(AboveStandardStreams(UniqueFd(mkostemp(path_.data(), O_CLOEXEC)))) {
    CheckOpen();
  }

  /// Under this name; a file that has it already is removed.
  TemporaryFile(const std::string& final_path, std::string path) : final_path_(final_path), path_(std::move(path)) {
    unlink(path_.c_str());
    fd_ = OpenFile(path_, O_RDWR | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
    CheckOpen();
  }

  ~TemporaryFile() {
    if (!in_place_) {
      unlink(path_.c_str());
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  /// Takes the disk's room for so many bytes.
  void Reserve(std::size_t size) {
    errno = posix_fallocate(fd_.get(), 0, static_cast<off_t>(size));
    if (errno != 0) {
      ThrowErrno("cannot make room for " + final_path_);
    }
    Sync();
    reserved_ = size;
  }

  /// Also on disk: a file system may keep a rename through a power cut and lose what the renamed file held.
  void Fill(std::string_view content, mode_t mode) {
    SetMode(mode);
    WriteFully(fd_.get(), content.data(), content.size(), "cannot write " + final_path_);
    if (content.size() < reserved_ && ftruncate(fd_.get(), static_cast<off_t>(content.size())) != 0) {
      ThrowErrno("cannot write " + final_path_);
    }
    Sync();
  }

  void Replace() {
    if (std::rename(path_.c_str(), final_path_.c_str()) != 0) {
      ThrowErrno("cannot replace " + final_path_);
    }
    in_place_ = true;
  }

  /// False when there is a file already.
  [[nodiscard]] bool PutWhereFree() {
    in_place_ = RenameToFree(AT_FDCWD, path_, final_path_);
    if (!in_place_ && errno != EEXIST) {
      ThrowErrno("cannot make " + final_path_);
    }
    return in_place_;
  }

  [[nodiscard]] UniqueFd Take() { return std::move(fd_); }

 private:
  void CheckOpen() const {
    if (!fd_.valid()) {
      ThrowErrno("cannot make a file beside " + final_path_);
    }
  }

  void SetMode(mode_t mode) {
    if (fchmod(fd_.get(), mode) != 0) {
      ThrowErrno("cannot set the mode of " + final_path_);
    }
  }

  void Sync() {
    if (fsync(fd_.get()) != 0) {
      ThrowErrno("cannot sync " + final_path_);
    }
  }

  std::string final_path_;
  std::string path_;
  UniqueFd fd_;
  std::size_t reserved_ = 0;
  bool in_place_ = false;
};

UniqueFd ReplaceFile(const std::string& path, std::string_view content, mode_t mode, Durability durability) {
  TemporaryFile file(path);
  file.Fill(content, mode);
  file.Replace();
  if (durability == Durability::kDurable) {
    SyncFolderOf(path);
  }
  return file.Take();
}

UniqueFd MakeFile(const std::string& path, std::string_view content, mode_t mode) {
  TemporaryFile file(path);
  file.Fill(content, mode);
  return file.PutWhereFree() ? file.Take() : UniqueFd();
}

ReservedFile::ReservedFile(const std::string& path, std::size_t size)
    : path_(path), file_(std::make_unique<TemporaryFile>(path, NameBeside(path))) {
  file_->Reserve(size);
}

ReservedFile::~ReservedFile() = default;

void ReservedFile::Replace(std::string_view content, mode_t mode) {
  file_->Fill(content, mode);
  file_->Replace();
  SyncFolderOf(path_);
}

std::string ReservedFile::NameBeside(const std::string& path) { return path + ".new"; }

}  // namespace orbamira
