#include "tools/packctl/host/checking_pack_handler.h"

#include <stdexcept>

#include "platform/download_wrapper.h"
#include "platform/printable.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kSize = "size";
constexpr std::size_t kLongestVersion = 128;
constexpr std::size_t kLongestLink = 2048;

void Check(const std::string& text, std::size_t longest, const std::string& what) {
  const std::string refusal = "the update server's reply offers no pack: its " + what;
  if (text.size() > longest) {
    throw std::runtime_error(refusal + " is over " + std::to_string(longest) + " bytes long");
  }
  if (Printable(text) != text) {
    throw std::runtime_error(refusal + " holds control characters or is no UTF-8");
  }
}

}  // namespace

bool CheckingPackHandler::CheckNewVersion(const Json::Value& info) const {
  const bool newer = PackHandler::CheckNewVersion(info);
  const std::string offered = GetDownloadVersion(info);
  // An offer that names no version is a broken reply, not an old pack.
  if (!newer && !offered.empty()) {
    declined_version_ = offered;
  }
  return newer;
}

// A check and an update ask for the version or for the link first: either way all of the offer is judged.
std::string CheckingPackHandler::GetDownloadVersion(const Json::Value& info) const {
  Check(PackHandler::GetDownloadLink(info), kLongestLink, "link");
  std::string version = PackHandler::GetDownloadVersion(info);
  Check(version, kLongestVersion, "version");
  offered_version_ = version;
  return version;
}

std::string CheckingPackHandler::GetDownloadLink(const Json::Value& info) const {
  static_cast<void>(GetDownloadVersion(info));
  std::string link = PackHandler::GetDownloadLink(info);
  sizes_.erase(link);
  if (info[kSize].isInt64() && info[kSize].asInt64() > 0) {
    sizes_[link] = info[kSize].asInt64();
  }
  return link;
}

bool CheckingPackHandler::DownloadWithProgress(const std::string& link, const std::string& path,
                                               std::function<void(long, long)>& progress) {
  const auto size = sizes_.find(link);
  if (size == sizes_.end()) {
    return PackHandler::DownloadWithProgress(link, path, progress);
  }
  return DownloadThrough(wrapper::DownloadWrapper::CreateForSize(size->second), link, path, progress);
}

bool CheckingPackHandler::CopyWithProgress(const std::string& file, const std::string& path,
                                           std::function<void(long, long)>& progress) {
  return DownloadThrough(wrapper::DownloadWrapper::CreateForFile(), file, path, progress);
}

}  // namespace orbamira::packctl
