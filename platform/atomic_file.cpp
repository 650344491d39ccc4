#include "platform/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "platform/unique_fd.h"

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

  void PutInPlace() {
    // The last chance of some file systems to report a failed write; the descriptor is gone either way.
    if (close(fd_.Release()) != 0 && errno != EINTR) {
      ThrowErrno("cannot write " + final_path_);
    }
    if (rename(path_.c_str(), final_path_.c_str()) != 0) {
      ThrowErrno("cannot replace " + final_path_);
    }
    in_place_ = true;
  }

 private:
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

void ReplaceFile(const std::string& path, std::string_view content, mode_t mode, Durability durability) {
  TemporaryFile file(path);
  file.SetMode(mode);
  file.Write(content);
  if (durability == Durability::kDurable) {
    file.Sync();
  }
  file.PutInPlace();
  if (durability == Durability::kDurable) {
    SyncFolderOf(path);
  }
}

}  // namespace orbamira
