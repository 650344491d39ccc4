#include "platform/download_wrapper.h"

#include <stdexcept>
#include <utility>

#include "platform/exception.h"
#include "platform/http/file_download.h"
#include "platform/network/network.h"

namespace orbamira::wrapper {
namespace {

// A download that cannot begin, and says so where others say why they failed.
class FailedDownload : public DownloadWrapper {
 public:
  explicit FailedDownload(std::string reason) : reason_(std::move(reason)) {}

  int DownloadToFile(std::ofstream& /*file*/) override {
    throw exception::Exception<exception::kDownloadFailure>(reason_, __FILE_NAME__, __LINE__);
  }
  void SetUrl(const std::string& /*link*/) override {}
  void SetProgressCallback(std::function<void(long, long)>& /*progress*/) override {}

 private:
  std::string reason_;
};

std::shared_ptr<DownloadWrapper> Make(const DownloadPolicy& policy) {
  try {
    return LoadNetwork().MakeDownload(policy);
  } catch (const std::runtime_error& error) {
    return std::make_shared<FailedDownload>(error.what());
  }
}

}  // namespace

std::shared_ptr<DownloadWrapper> DownloadWrapper::Create() { return Make({}); }

std::shared_ptr<DownloadWrapper> DownloadWrapper::CreateForSize(std::int64_t size) {
  DownloadPolicy policy;
  policy.size = size;
  return Make(policy);
}

std::shared_ptr<DownloadWrapper> DownloadWrapper::CreateForFile() { return MakeFileDownload(); }

}  // namespace orbamira::wrapper
