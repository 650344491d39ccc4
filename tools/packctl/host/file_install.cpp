#include "tools/packctl/host/file_install.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/constants.h"
#include "platform/log.h"
#include "platform/posix/file_status.h"
#include "platform/posix/unique_fd.h"
#include "platform/printable.h"
#include "platform/version.h"
#include "tools/packctl/record/installed_pack.h"
#include "updater/update_request.h"

namespace orbamira::packctl {
namespace {

namespace fs = std::filesystem;

/// Why the file can be no package; empty when it may be one. What cannot be told counts as nothing wrong.
std::string WhyNoPackage(const std::string& file) {
  const UniqueFd opened = OpenFile(file, O_RDONLY);
  struct stat status {};
  if (!opened.valid() || fstat(opened.get(), &status) != 0) {
    return std::generic_category().message(errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return "not a regular file";
  }
  const fs::path own = fs::weakly_canonical(kDownloadFolder);
  const fs::path path = fs::weakly_canonical(file);
  const bool is_own = std::mismatch(own.begin(), own.end(), path.begin(), path.end()).first == own.end();
  return is_own ? "it is in the updater's own folder for downloads" : "";
}

bool CanBeShown(const std::string& text) {
  constexpr std::size_t kLongest = 128;
  return !text.empty() && text.size() <= kLongest && Printable(text) == text;
}

bool IsThereAKeyring() { return fs::exists(LinkStatusOf(path::kKeyring)); }

}  // namespace

FileInstall::FileInstall(const UpdateObjects& objects, FileWishes wishes)
    : objects_(objects), wishes_(std::move(wishes)) {
  if (wishes_.trust) {
    objects_.core->TrustPackages();
  }
}

bool FileInstall::Run() try {
  AskedStatusHelper& status = *objects_.status;
  const updater::PackStatus before = status.GetPackStatus();
  const std::string version_before = status.GetPackNewVersion();
  if (!status.CanDoFileInstall(before) || !MayBegin()) {
    return false;
  }
  status.SetAsDownloadInstalling();
  if (!Fetch() || !ReadIdentity() || !IsWanted()) {
    PutBack(before, version_before);
    return false;
  }
  status.SetAsNeedInstall(version_, name_);
  return objects_.manager->Install();
} catch (const std::exception& error) {
  ORBAMIRA_LOG_ERROR("Install failed: %s", error.what());
  return false;
}

/// Looks at what needs no copy.
bool FileInstall::MayBegin() {
  if (const std::string reason = WhyNoPackage(wishes_.file); !reason.empty()) {
    ORBAMIRA_LOG_ERROR("cannot read the package file: %s: %s", wishes_.file.c_str(), reason.c_str());
    return false;
  }
  if (wishes_.trust || IsThereAKeyring()) {
    return true;
  }
  return Refuse(FailureReason::kKeyringUnusable, "there is no keyring to check the package's signature with",
                std::string("Install the maker's keyring as ") + path::kKeyring +
                    ", or use --trust if you know where the package comes from.");
}

bool FileInstall::Fetch() {
  const AskedStatusHelper& status = *objects_.status;
  CheckingPackHandler& handler = *objects_.handler;
  std::function<void(long, long)> progress = [&status](long now, long total) {
    status.SetAsDownloadInstalling(now, total);
  };
  const std::string package = handler.GetDownloadPath();
  if (!handler.RemoveDownloadDirectory() || !handler.CreateDownloadDirectory() ||
      !handler.CopyWithProgress(wishes_.file, package, progress)) {
    return false;
  }
  if (objects_.core->RunCommand({path::kOrbaArchivePath, "--verify", package, "-C", kDownloadFolder}) != 0) {
    ORBAMIRA_LOG_ERROR("Package %s is not accepted", wishes_.file.c_str());
    return false;
  }
  return true;
}

bool FileInstall::ReadIdentity() {
  const std::string info = std::string(kDownloadFolder) + "/INFO";
  name_ = objects_.handler->GetPackageNameFromInfo(info);
  version_ = objects_.handler->GetVersionFromInfo(info);
  if (CanBeShown(name_) && CanBeShown(version_)) {
    return true;
  }
  version_.clear();
  return Refuse(FailureReason::kBadPackage, "the package's INFO gives it no usable name and version",
                "Get a package from its publisher.");
}

/// As a check judges an offer.
bool FileInstall::IsWanted() {
  const updater::PackChoice choice = updater::ChoosePack(*objects_.manager);
  if (const std::string wanted = updater::PackName(choice.with_aac); name_ != wanted) {
    return Refuse(FailureReason::kWrongPack, "the package has " + name_ + ", and this appliance takes " + wanted,
                  "Get the package of " + wanted + " from its publisher.");
  }
  const std::optional<InstalledPack> pack = ReadInstalledPack();
  const std::string installed = pack ? pack->identity.version : "";
  if (installed.empty() || choice.reason == updater::PackReason::kAacRequested || IsNewVersion(installed, version_)) {
    return true;
  }
  if (IsNewVersion(version_, installed)) {
    return wishes_.allow_older ||
           Refuse(FailureReason::kOlderVersion, "the package is older than the installed " + Printable(installed),
                  "Get a newer package from its publisher.");
  }
  is_installed_already_ = !wishes_.reinstall;
  return wishes_.reinstall;
}

/// What was recorded holds again, unless the download that it was about is gone.
void FileInstall::PutBack(updater::PackStatus before, const std::string& version) const {
  const AskedStatusHelper& status = *objects_.status;
  if (before == updater::kStatusNeedDownload) {
    status.SetAsNeedDownload(version);
  } else if (before == updater::kStatusUpToDate || (before == updater::kStatusLost && ReadInstalledPack())) {
    status.SetAsUpToDate();
  } else {
    status.SetAsDownloadInstallFailed();
  }
}

bool FileInstall::Refuse(FailureReason reason, const std::string& message, const std::string& remedy) {
  ORBAMIRA_LOG_ERROR("Package %s is refused: %s", wishes_.file.c_str(), message.c_str());
  refusal_ = MakeFailure(reason, message, remedy);
  return false;
}

}  // namespace orbamira::packctl
