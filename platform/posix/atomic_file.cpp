#include "platform/posix/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/posix/unique_fd.h"

namespace orbamira {
namespace {

[[noreturn]] void ThrowErrno(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

// The new content while it is not yet in place: a file beside its final name, so that rename stays on one file system.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& final_path)
      : final_path_(final_path),
        path_(final_path + ".XXXXXX"),
        fd_(AboveStandardStreams(UniqueFd(mkostemp(path_.data(), O_CLOEXEC)))) {
    if (!fd_.valid()) {
      ThrowErrno("cannot make a file beside " + final_path);
    }
  }
  ~TemporaryFile() {
    if (!in_place_) {
      unlink(path_.c_str());
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  /// Also on disk: a file system may keep a rename through a power cut and lose what the renamed file held.
  void Fill(std::string_view content, mode_t mode) {
    SetMode(mode);
    Write(content);
    Sync();
  }

  /// False when the flags forbid to replace a file that exists, and one does.
  [[nodiscard]] bool PutInPlace(unsigned flags) {
    if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, final_path_.c_str(), flags) == 0) {
      in_place_ = true;
    } else if (errno != EEXIST) {
      ThrowErrno("cannot replace " + final_path_);
    }
    return in_place_;
  }

  [[nodiscard]] UniqueFd Take() { return std::move(fd_); }

 private:
  void Write(std::string_view content) {
    while (!content.empty()) {
      const ssize_t written = write(fd_.get(), content.data(), content.size());
      if (written >= 0) {
        content.remove_prefix(static_cast<std::size_t>(written));
      } else if (errno != EINTR) {
        ThrowErrno("cannot write " + final_path_);
      }
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

  const std::string& final_path_;
  std::string path_;
  UniqueFd fd_;
  bool in_place_ = false;
};

void SyncFolderOf(const std::string& path) {
  const std::string folder = (std::filesystem::path(path).parent_path() / ".").string();
  const UniqueFd fd = OpenFile(folder, O_RDONLY | O_DIRECTORY);
  if (!fd.valid() || fsync(fd.get()) != 0) {
    ThrowErrno("cannot sync the folder of " + path);
  }
}

}  // namespace

UniqueFd ReplaceFile(const std::string& path, std::string_view content, mode_t mode, Durability durability) {
  TemporaryFile file(path);
  file.Fill(content, mode);
  static_cast<void>(file.PutInPlace(0));  // what exists is replaced
  if (durability == Durability::kDurable) {
    SyncFolderOf(path);
  }
  return file.Take();
}

UniqueFd MakeFile(const std::string& path, std::string_view content, mode_t mode) {
  TemporaryFile file(path);
  file.Fill(content, mode);
  return file.PutInPlace(RENAME_NOREPLACE) ? file.Take() : UniqueFd();
}

}  // namespace orbamira
