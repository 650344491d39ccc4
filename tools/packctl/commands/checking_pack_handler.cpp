#include "tools/packctl/commands/checking_pack_handler.h"

#include "platform/download_wrapper.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kSize = "size";

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

std::string CheckingPackHandler::GetDownloadLink(const Json::Value& info) const {
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

}  // namespace orbamira::packctl
