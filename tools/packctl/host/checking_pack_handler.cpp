#include "tools/packctl/host/checking_pack_handler.h"

#include <stdexcept>
#include <utility>

#include "platform/download_wrapper.h"
#include "platform/printable.h"
#include "platform/version.h"
#include "updater/health.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kSize = "size";
constexpr const char* kWasRejected = " was rejected on this appliance";
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

void CheckingPackHandler::TakeStagedReleases() {
  audience_ = ReadAudience();
  audience_->takes_all = true;
}

Json::Value CheckingPackHandler::Chosen(const Json::Value& info) const {
  withdrawn_ = WithdrawnVersions(info);
  other_releases_ = {};
  if (!HasOtherReleases(info)) {
    return info;
  }
  const std::string installed = GetVersionFromInfo(GetInfoPath());
  other_releases_.withdrawn = HasWithdrawn(installed) ? installed : "";
  if (!audience_) {
    audience_ = ReadAudience();
  }
  ReleaseChoice choice = ChooseRelease(info, *audience_);
  if (choice.left_out && IsNewVersion(installed, choice.left_out->version)) {
    other_releases_.staged = std::move(choice.left_out);
  }
  return std::move(choice.offer);
}

bool CheckingPackHandler::CheckNewVersion(const Json::Value& info) const {
  const std::string offered = OfferedVersion(info);
  const bool newer = !Rejects(offered) && PackHandler::CheckNewVersion(info);
  // An offer that names no version is a broken reply, not an old pack.
  if (!newer && !offered.empty()) {
    declined_version_ = offered;
  }
  return newer;
}

// A check and an update ask for the version or for the link first: either way all of the offer is judged.
std::string CheckingPackHandler::OfferedVersion(const Json::Value& info) const {
  const Json::Value offer = Chosen(info);
  Check(PackHandler::GetDownloadLink(offer), kLongestLink, "link");
  std::string version = PackHandler::GetDownloadVersion(offer);
  Check(version, kLongestVersion, "version");
  offer_ = ReadOffer(offer);
  return version;
}

std::string CheckingPackHandler::GetDownloadVersion(const Json::Value& info) const {
  std::string version = OfferedVersion(info);
  if (Rejects(version)) {
    throw std::runtime_error("version " + version + kWasRejected);
  }
  return version;
}

void CheckingPackHandler::RefuseOlder(const std::string& version) const {
  const std::string installed = GetVersionFromInfo(GetInfoPath());
  if (!accepts_older_ && !version.empty() && !installed.empty() && IsNewVersion(version, installed)) {
    throw std::runtime_error("the version on offer, " + version + ", is older than the installed " + installed);
  }
}

bool CheckingPackHandler::Rejects(const std::string& version) const {
  const bool rejects = !accepts_rejected_ && updater::IsRejected(version);
  rejected_version_ = rejects ? std::optional(version) : std::nullopt;
  return rejects;
}

std::string CheckingPackHandler::GetDownloadLink(const Json::Value& info) const {
  static_cast<void>(GetDownloadVersion(info));
  if (look_) {
    look_(offer_);
  }
  const Json::Value offer = Chosen(info);
  std::string link = PackHandler::GetDownloadLink(offer);
  sizes_.erase(link);
  if (offer[kSize].isInt64() && offer[kSize].asInt64() > 0) {
    sizes_[link] = offer[kSize].asInt64();
  }
  return link;
}

std::string CheckingPackHandler::GetDownloadChecksum(const Json::Value& info) const {
  return PackHandler::GetDownloadChecksum(Chosen(info));
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
