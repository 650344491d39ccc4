#include "tools/orba-archive/archive_writer.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>
#include <utility>

#include "platform/posix/files.h"
#include "tools/orba-archive/entry_time.h"
#include "tools/orba-archive/member_name.h"

namespace orbamira::tools {
namespace {

constexpr size_t kFileReadSize = 256UL * 1024;

/// Collects the names of members, sorted; a folder comes before its contents.
class Collector {
 public:
  Collector(int folder, Layer layer) : folder_(folder), layer_(layer) {}

  void Add(const std::string& member) {
    std::string name;
    for (const std::string_view part : SplitMemberName(member)) {
      name = name.empty() ? std::string(part) : Below(name, std::string(part));
    }
    if (!name.empty()) {
      AddTree(name);
      return;
    }
    for (const std::string& top : ListDirectory(folder_, member)) {
      AddTree(top);
    }
  }

  [[nodiscard]] const std::set<std::string>& names() const { return names_; }

 private:
  void AddTree(const std::string& name) {
    static_cast<void>(SplitMemberName(name));  // refuses what could not be unpacked
    const mode_t type = StatName(folder_, name, name).st_mode & S_IFMT;
    if (layer_ == Layer::kPackage && (type != S_IFREG || name.find('/') != std::string::npos)) {
      throw std::runtime_error(name + ": a package contains only files at the top level");
    }
    if (type != S_IFREG && type != S_IFDIR && type != S_IFLNK) {
      throw std::runtime_error(name + ": neither a file, a folder nor a symbolic link");
    }
    names_.insert(name);
    if (type == S_IFDIR) {
      for (const std::string& inner : ListDirectory(OpenDirectory(folder_, name, name).get(), name)) {
        AddTree(Below(name, inner));
      }
    }
  }

  int folder_;
  Layer layer_;
  std::set<std::string> names_;
};

/// A file beside `path` that gets its name when it is whole and on disk. The destructor removes it otherwise.
class PendingFile {
 public:
  explicit PendingFile(std::string path) : path_(std::move(path)), pending_(path_ + ".XXXXXX") {
    file_ = UniqueFd(mkostemp(pending_.data(), O_CLOEXEC));
    if (!file_.valid()) {
      ThrowErrno("cannot create");
    }
  }
  ~PendingFile() {
    if (!pending_.empty()) {
      unlink(pending_.c_str());
    }
  }
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;

  [[nodiscard]] int get() const { return file_.get(); }

  void TakeName() {
    if (fchmod(get(), 0644) != 0 || fsync(get()) != 0 || std::rename(pending_.c_str(), path_.c_str()) != 0) {
      ThrowErrno("cannot create");
    }
    pending_.clear();
  }

 private:
  std::string path_;
  std::string pending_;
  UniqueFd file_;
};

class Writer {
 public:
  Writer(int fd, Layer layer, int folder, time_t mtime)
      : folder_(folder), mtime_(mtime), buffer_(kFileReadSize), archive_(archive_write_new(), archive_write_free) {
    if (!archive_) {
      throw std::bad_alloc();
    }
    Check(archive_write_set_format_pax_restricted(archive_.get()));
    if (layer == Layer::kPayload) {
      Check(archive_write_add_filter_gzip(archive_.get()));
      Check(archive_write_set_filter_option(archive_.get(), "gzip", "compression-level", "9"));
      Check(archive_write_set_filter_option(archive_.get(), "gzip", "timestamp", nullptr));
    }
    Check(archive_write_open_fd(archive_.get(), fd));
  }

  void Add(const std::string& name) {
    const struct stat status = StatName(folder_, name, name);
    const std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
    if (!entry) {
      throw std::bad_alloc();
    }
    const bool executable = S_ISDIR(status.st_mode) || (status.st_mode & S_IXUSR) != 0;
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_mode(entry.get(), (status.st_mode & S_IFMT) | (executable ? 0755 : 0644));
    SetModificationTime(entry.get(), mtime_);
    if (S_ISLNK(status.st_mode)) {
      archive_entry_set_symlink(entry.get(), ReadLink(folder_, name, name).c_str());
    }
    if (S_ISREG(status.st_mode)) {
      AddFile(entry.get(), name);
    } else {
      Check(archive_write_header(archive_.get(), entry.get()));
    }
  }

  void Close() { Check(archive_write_close(archive_.get())); }

 private:
  void AddFile(archive_entry* entry, const std::string& name) {
    const UniqueFd file(openat(folder_, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) {
      ThrowErrno(name);
    }
    const off_t size = Stat(file.get(), name).st_size;
    archive_entry_set_size(entry, size);
    Check(archive_write_header(archive_.get(), entry));
    off_t done = 0;
    while (const size_t count = ReadFully(file.get(), buffer_.data(), buffer_.size(), name)) {
      done += static_cast<off_t>(count);
      if (done > size) {
        break;
      }
      if (archive_write_data(archive_.get(), buffer_.data(), count) != static_cast<la_ssize_t>(count)) {
        Check(ARCHIVE_FATAL);
      }
    }
    if (done != size) {
      throw std::runtime_error(name + ": changed while it was read");
    }
  }

  void Check(int result) {
    if (result != ARCHIVE_OK) {
      const char* text = archive_error_string(archive_.get());
      throw std::runtime_error(text == nullptr ? "cannot write" : text);
    }
  }

  int folder_;
  time_t mtime_;
  std::vector<char> buffer_;
  std::unique_ptr<archive, int (*)(archive*)> archive_;
};

}  // namespace

void CreateArchive(const std::string& path, Layer layer, int folder, const std::vector<std::string>& members,
                   time_t mtime) {
  Collector collector(folder, layer);
  for (const std::string& member : members) {
    collector.Add(member);
  }
  PendingFile file(path);
  Writer writer(file.get(), layer, folder, mtime);
  for (const std::string& name : collector.names()) {
    writer.Add(name);
  }
  writer.Close();
  file.TakeName();
}

}  // namespace orbamira::tools
