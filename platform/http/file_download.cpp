#include "platform/http/file_download.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/exception.h"
#include "platform/http/body_file.h"
#include "platform/http/progress_throttle.h"
#include "platform/http/size_limit.h"
#include "platform/posix/files.h"

namespace orbamira {
namespace {

constexpr int kOk = 200;
constexpr std::size_t kReadSize = 64UL * 1024;

/// A file of another's, which may vanish at any moment.
class Source {
 public:
  explicit Source(const std::string& path) : shown_("cannot read the package file: " + path) {
    file_ = OpenFile(path, O_RDONLY);
    if (!file_.valid()) {
      ThrowErrno(shown_);
    }
    const struct stat status = Stat(file_.get(), shown_);
    if (!S_ISREG(status.st_mode)) {
      throw std::runtime_error(shown_ + ": not a regular file");
    }
    size_ = status.st_size;
  }

  /// When it was opened.
  [[nodiscard]] std::int64_t size() const { return size_; }

  /// The next bytes; none after `size` bytes.
  std::string_view Next() {
    const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(kReadSize, size_ - done_));
    const std::size_t count = ReadFully(file_.get(), piece_.data(), wanted, shown_);
    if (count < wanted) {
      throw std::runtime_error(shown_ + ": it became shorter");
    }
    done_ += static_cast<std::int64_t>(count);
    return {piece_.data(), count};
  }

 private:
  std::string shown_;
  UniqueFd file_;
  std::int64_t size_ = 0;
  std::int64_t done_ = 0;
  std::array<char, kReadSize> piece_;
};

/// Tells a failure of a disk apart from an exception of the progress function.
template <typename Action>
auto OnDisk(Action action) -> decltype(action()) {
  try {
    return action();
  } catch (const std::runtime_error& error) {
    throw exception::Exception<exception::kDownloadFailure>(error.what(), __FILE_NAME__, __LINE__);
  }
}

class FileDownload : public wrapper::DownloadWrapper {
 public:
  int DownloadToFile(std::ofstream& file) override {
    Source source = OnDisk([this] { return Source(path_); });
    BodyFile body = OnDisk([&file] { return BodyFile(file); });
    OnDisk([&] {
      ExpectWithin(SizeLimitFromSettings(), source.size());
      body.ExpectRoomFor(source.size());
    });
    ProgressThrottle progress(progress_);
    for (std::int64_t done = 0; done < source.size();) {
      done += OnDisk([&] { return Append(source, body); });
      progress.Report(done, source.size());
    }
    OnDisk([&body] { body.Sync(); });
    progress.ReportLast(source.size());
    return kOk;
  }

  void SetUrl(const std::string& link) override { path_ = link; }

  void SetProgressCallback(std::function<void(long, long)>& progress) override { progress_ = &progress; }

 private:
  static std::int64_t Append(Source& source, BodyFile& body) {
    const std::string_view bytes = source.Next();
    body.Write(bytes);
    return static_cast<std::int64_t>(bytes.size());
  }

  std::string path_;
  const std::function<void(long, long)>* progress_ = nullptr;
};

}  // namespace

std::shared_ptr<wrapper::DownloadWrapper> MakeFileDownload() { return std::make_shared<FileDownload>(); }

}  // namespace orbamira
